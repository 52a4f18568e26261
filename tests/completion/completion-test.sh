#!/bin/bash
# Checks the installed bash completion of orvane, qorcli and orvane-analyze.
# Runs as root inside a sandbox holding the staged installation: it writes
# plugin files, the debug configuration, CLI definitions and run records at
# the host's fixed paths.
#
# Each case types a line with the cursor at its end, splits it into
# COMP_WORDS as bash does for the COMP_WORDBREAKS in force, calls the
# completion function that bash-completion loads for the command as bash
# calls it, and compares COMPREPLY (in any order) with the candidates
# expected. Some cases also check the line readline makes of the only
# candidate. The completion must never write to standard error. Every
# failing case is printed; the script ends with "N passed, N failed" and
# exits 1 when a case failed.

readonly completions=/usr/share/bash-completion/completions
readonly plugins=/usr/libexec/orvane/plugins
readonly debug_configuration=/etc/talvek/orvane/debug.conf
readonly definitions=/usr/lib/talvek/qorcli
readonly scratch=/tmp/completion-test
# What an interactive bash starts with.
readonly default_wordbreaks=$' \t\n"\'><=;|&(:'

passed=0
failed=0

# Prints a failing case and counts it.
fail()
{
    printf 'FAIL: %s\n' "$1"
    shift
    (($#)) && printf '      %s\n' "$@"
    ((failed++))
}

pass()
{
    ((passed++))
}

# The words of an array as one line, each in brackets.
show()
{
    (($#)) || {
        printf '(none)'
        return
    }
    printf '[%s] ' "$@"
}

# compopt works only while bash itself runs a completion: here it records
# the options the completion function set, as bash would.
compopt()
{
    while (($#)); do
        case $1 in
            -o) compopt_options+=" $2 " && shift ;;
            +o) compopt_options=${compopt_options// $2 /} && shift ;;
        esac
        shift
    done
    return 0
}

# Sets COMP_WORDS, COMP_CWORD, COMP_LINE and COMP_POINT as bash sets them
# for LINE with the cursor at its end: blanks separate words, and a run of
# the other COMP_WORDBREAKS characters is a word of its own (the cases use
# no quotes). Sets `text` to the part of the line readline replaces: what
# follows its last word-break character.
split_line()
{
    local line=$1 word='' kind='' class character i
    local -a split=()
    for ((i = 0; i < ${#line}; i++)); do
        character=${line:i:1}
        if [[ $character == [[:blank:]] ]]; then
            [[ $kind ]] && split+=("$word")
            word='' kind=''
            continue
        fi
        class='text'
        [[ $COMP_WORDBREAKS == *"$character"* ]] && class='break'
        if [[ $kind && $kind != "$class" ]]; then
            split+=("$word")
            word=
        fi
        word+=$character
        kind=$class
    done
    split+=("$word") # the word at the cursor, empty after a blank
    COMP_WORDS=("${split[@]}")
    COMP_CWORD=$((${#split[@]} - 1))
    COMP_LINE=$line
    COMP_POINT=${#line}
    text=$line
    for ((i = ${#line} - 1; i >= 0; i--)); do
        if [[ $COMP_WORDBREAKS == *"${line:i:1}"* ]]; then
            text=${line:i+1}
            break
        fi
    done
}

# Completes LINE with the function complete -F names for its first word.
# Sets COMPREPLY, compopt_options, text and errors (what the function wrote
# to standard error).
complete_line()
{
    local line=$1 compspec function
    split_line "$line"
    compspec=$(complete -p -- "${COMP_WORDS[0]}" 2>/dev/null)
    function=
    [[ $compspec =~ -F\ ([^ ]+) ]] && function=${BASH_REMATCH[1]}
    COMPREPLY=()
    compopt_options=
    if [[ ! $function ]]; then
        errors="no completion function for ${COMP_WORDS[0]}"
        return
    fi
    "$function" "${COMP_WORDS[0]}" "$text" "${COMP_WORDS[COMP_CWORD - 1]}" 2>"$scratch/stderr"
    errors=$(<"$scratch/stderr")
}

# expect LINE [CANDIDATE...]: completing LINE offers exactly these
# candidates, in any order, and writes nothing to standard error.
expect()
{
    local line=$1
    shift
    complete_line "$line"
    local got want
    got=$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort)
    want=$(printf '%s\n' "$@" | LC_ALL=C sort)
    if [[ $got != "$want" || $errors ]]; then
        fail "'$line' (COMP_WORDBREAKS=${COMP_WORDBREAKS@Q})" \
            "expected: $(show "$@")" "got:      $(show "${COMPREPLY[@]}")" \
            ${errors:+"standard error: $errors"}
    else
        pass
    fi
}

# expect_line LINE RESULT: completing LINE offers one candidate, and
# readline makes RESULT of the line: the text after the last word break
# replaced by the candidate, then a space unless the function asked for
# nospace.
expect_line()
{
    local line=$1 want=$2 got
    complete_line "$line"
    if ((${#COMPREPLY[@]} != 1)) || [[ $errors ]]; then
        fail "'$line' (COMP_WORDBREAKS=${COMP_WORDBREAKS@Q})" "expected one candidate making '$want'" \
            "got:      $(show "${COMPREPLY[@]}")" ${errors:+"standard error: $errors"}
        return
    fi
    got=${line:0:${#line}-${#text}}${COMPREPLY[0]}
    [[ $compopt_options == *" nospace "* ]] || got+=' '
    if [[ $got != "$want" ]]; then
        fail "'$line' (COMP_WORDBREAKS=${COMP_WORDBREAKS@Q})" "expected line: '$want'" \
            "got line:      '$got'"
    else
        pass
    fi
}

# --- set-up -------------------------------------------------------------

rm -rf "$scratch"
mkdir -p "$scratch"
cd "$scratch" || exit 1

# shellcheck source=/dev/null
if ! source /usr/share/bash-completion/bash_completion; then
    echo "completion-test: cannot load /usr/share/bash-completion/bash_completion"
    exit 1
fi

# Each program's completion is installed where bash-completion loads it
# from the first time the program is completed.
for program in orvane qorcli orvane-analyze; do
    if [[ ! -f $completions/$program ]]; then
        fail "$completions/$program is not installed"
    elif ! __load_completion "$program" 2>"$scratch/stderr" || [[ -s $scratch/stderr ]]; then
        fail "bash-completion did not load the completion of $program" "$(<"$scratch/stderr")"
    elif ! complete -p "$program" >/dev/null 2>&1; then
        fail "loading $completions/$program registered no completion for $program"
    else
        pass
    fi
done

# Two runs of the installed orvane leave two run records for
# orvane-analyze: debug injections alpha and beta, then gamma alone.
mkdir -p "$scratch/no-plugins"
record_run()
{
    printf '%s\n' "$@" >"$debug_configuration"
    # The executor leaves its socket behind, which would stop the next run.
    rm -f /var/run/talvek/orvaneExecutor.sock
    if ! orvane --plugin-directory="$scratch/no-plugins" >"$scratch/orvane.log" 2>&1; then
        fail "orvane did not run to write a run record" "$(<"$scratch/orvane.log")"
    fi
}
record_run 'alpha::alpha-done:true' 'beta:alpha-done::true'
cp -L /var/log/orvane/last.jsonl "$scratch/first.jsonl"
record_run 'gamma:::true'

# The plugin directory: every kind of entry, of which only the regular
# .json and .so files that are not hidden are plugin files.
for file in firewall.json firstboot.json net.json libnet.so storage.so notes.txt .hidden.json; do
    : >"$plugins/$file"
done
mkdir -p "$plugins/directory.json"
printf '%s\n' 'settle:storage:storage-settled:sleep 0.1' \
    '  report:storage-settled,firewall::echo done' \
    'no fields' 'two words:::true' '"quoted":::true' '' >"$debug_configuration"
mkdir -p "$scratch/other"
: >"$scratch/other/extra.json"
: >"$scratch/other/libother.so"

# CLI definitions in three of the four directories; a later one redefines
# "example log" with a third parameter. A broken file is skipped quietly.
mkdir -p "$definitions/int/ext" "$definitions/ext"
cat >"$definitions/example.json" <<'EOF'
{"commands": [
  {"path": ["example", "firewall", "set"],
   "parameters": [{"name": "enabled", "short": "e", "type": "bool", "required": true},
                  {"name": "profile"}],
   "exec": ["/bin/true"]},
  {"path": ["example", "log"],
   "parameters": [{"name": "source", "short": "s", "required": true},
                  {"name": "message", "short": "m", "required": true}],
   "exec": ["/bin/true"]},
  {"path": ["reboot"], "exec": ["/bin/true"]}
]}
EOF
cat >"$definitions/int/ext/status.json" <<'EOF'
{"commands": [
  {"path": ["example", "status"], "parameters": [{"name": "count", "type": "int"}],
   "exec": ["/bin/true"]}
]}
EOF
cat >"$definitions/ext/log.json" <<'EOF'
// "example log" again, with a level
{"commands": [
  {"path": ["example", "log"],
   "parameters": [{"name": "source", "short": "s", "required": true},
                  {"name": "message", "short": "m", "required": true},
                  {"name": "level", "type": "int"}],
   "exec": ["/bin/true"]}
]}
EOF
printf '{' >"$definitions/int/broken.json"

mkdir -p "$scratch/records/sub"
: >"$scratch/records/a.jsonl"
: >"$scratch/records/b.jsonl"
: >"$scratch/dump-file"

COMP_WORDBREAKS=$default_wordbreaks

# --- orvane: options ----------------------------------------------------

all_long_options=(--help --init --invoke --method= --plugin= --trace --verbose --randomize
    --randomize= --parallel --plugin-flags= --interactive --disable-plugins=
    --dump-dependency-tree --dump-dependency-tree= --interactive-mode-requires= --daemon
    --daemon= --daemon-wait-timeout=)
expect 'orvane --' "${all_long_options[@]}"
expect 'orvane -' -h "${all_long_options[@]}"
expect 'orvane --pl' --plugin= --plugin-flags=
expect 'orvane --dump' --dump-dependency-tree --dump-dependency-tree=
expect 'orvane --daemon' --daemon --daemon= --daemon-wait-timeout=
expect 'orvane --run' # not listed by --help
expect_line 'orvane --met' 'orvane --method='
expect_line 'orvane --plugin-f' 'orvane --plugin-flags='
expect_line 'orvane --daemon-' 'orvane --daemon-wait-timeout='
expect_line 'orvane --inv' 'orvane --invoke '
expect_line 'orvane --init --par' 'orvane --init --parallel '
expect 'orvane ' # words that are not options are ignored
expect 'orvane --init '
expect 'orvane -- --pl' # no option after "--"
expect 'orvane --init=' # takes no value

# --- orvane: values -----------------------------------------------------

expect 'orvane --method=' start stop apply_host_profile
expect 'orvane --method=st' start stop
expect_line 'orvane --method=a' 'orvane --method=apply_host_profile '
expect 'orvane --method ' start stop apply_host_profile
expect 'orvane --meth=s' start stop # shortened as orvane allows
expect 'orvane --daemon --method=' start stop
expect 'orvane --daemon=wait --method ' start stop
expect 'orvane --dae=wait --method ' start stop apply_host_profile # ambiguous: not daemon
expect 'orvane --daemon-wait-timeout=5 --method=' start stop apply_host_profile
expect 'orvane --daemon=' wait nowait
expect_line 'orvane --daemon=n' 'orvane --daemon=nowait '
expect 'orvane --daemon-wait-timeout='
expect 'orvane --randomize='
expect 'orvane --plugin-flags='
expect 'orvane --run-once='
# The first --method takes "--daemon" as its method: not daemon mode.
expect 'orvane --method --daemon --method=' start stop apply_host_profile
expect_line "orvane --dump-dependency-tree=$scratch/dump-f" \
    "orvane --dump-dependency-tree=$scratch/dump-file "

# --- orvane: plugin files and names, comma lists ------------------------

plugin_files=(firewall.json firstboot.json net.json libnet.so storage.so settle.debug report.debug)
expect 'orvane --plugin=' "${plugin_files[@]}"
expect 'orvane --plugin ' "${plugin_files[@]}"
expect 'orvane --plug=' # --plugin, --plugin-flags or --plugin-directory: orvane refuses it too
expect 'orvane --disable=n' net # --disable-plugins, shortened
expect 'orvane --plugin=f' firewall.json firstboot.json
expect 'orvane --plugin=firewall.json,' firewall.json,firstboot.json firewall.json,net.json \
    firewall.json,libnet.so firewall.json,storage.so firewall.json,settle.debug \
    firewall.json,report.debug
expect 'orvane --plugin=firewall.json,s' firewall.json,storage.so firewall.json,settle.debug
expect_line 'orvane --plugin=firewall.json,fi' 'orvane --plugin=firewall.json,firstboot.json '
expect_line 'orvane --plugin=net.json,,re' 'orvane --plugin=net.json,,report.debug '
expect_line 'orvane --plugin firewall.json,li' 'orvane --plugin firewall.json,libnet.so '
expect 'orvane --plugin=notes'
expect 'orvane --plugin=.'
expect 'orvane --plugin=d'
expect 'orvane --disable-plugins=' firewall firstboot net storage
expect 'orvane --disable-plugins=net,f' net,firewall net,firstboot
expect 'orvane --disable-plugins=net,firewall,' net,firewall,firstboot net,firewall,storage
expect 'orvane --interactive-mode-requires=st' storage
expect 'orvane --interactive-mode-requires ' firewall firstboot net storage
expect "orvane --plugin-directory=$scratch/other --plugin=" extra.json libother.so \
    settle.debug report.debug
expect "orvane --plugin-directory $scratch/other --disable-plugins=" extra other
expect "orvane --plugin-directory=$scratch/other --plugin-directory=$plugins --disable-plugins=" \
    firewall firstboot net storage
expect "orvane --plugin-directory=$scratch/oth" "$scratch/other"

# Comma and "=" as word breaks, or "=" not one: bash replaces a different
# part of the word each time, and the line comes out the same.
COMP_WORDBREAKS="$default_wordbreaks,"
expect 'orvane --plugin=firewall.json,s' storage.so settle.debug
expect_line 'orvane --plugin=firewall.json,fi' 'orvane --plugin=firewall.json,firstboot.json '
expect_line 'orvane --disable-plugins=net,fire' 'orvane --disable-plugins=net,firewall '
expect_line 'orvane --pl,x --method=a' 'orvane --pl,x --method=apply_host_profile '
COMP_WORDBREAKS=${default_wordbreaks//=/}
expect 'orvane --plugin=f' --plugin=firewall.json --plugin=firstboot.json
expect_line 'orvane --plugin=firewall.json,fi' 'orvane --plugin=firewall.json,firstboot.json '
expect_line 'orvane --met' 'orvane --method='
expect_line 'orvane --method=a' 'orvane --method=apply_host_profile '
COMP_WORDBREAKS=$default_wordbreaks

# --- qorcli -------------------------------------------------------------

expect 'qorcli ' example reboot
expect_line 'qorcli ex' 'qorcli example '
expect 'qorcli example ' firewall log status
expect_line 'qorcli example f' 'qorcli example firewall '
expect 'qorcli example firewall ' set
expect 'qorcli example firewall set ' --enabled --profile
expect 'qorcli example firewall set --' --enabled --profile --help
expect 'qorcli example firewall set -e yes ' --profile
expect 'qorcli example firewall set --enabled ' true false 1 0 yes no --profile
expect_line 'qorcli example firewall set --enabled y' 'qorcli example firewall set --enabled yes '
expect 'qorcli example firewall set --enabled=' true false 1 0 yes no
expect_line 'qorcli example firewall set --enabled=t' \
    'qorcli example firewall set --enabled=true '
expect 'qorcli example log ' --source --message --level # the later definition
expect 'qorcli example log -s ' # a string: anything
expect 'qorcli example log -s admin ' --message --level
expect 'qorcli example log -s admin --message=' # nothing to offer after "=" either
expect_line 'qorcli example log -s admin --l' 'qorcli example log -s admin --level '
expect 'qorcli example status ' --count
expect 'qorcli example ' firewall log status
expect 'qorcli reboot '
expect 'qorcli bogus '
expect 'qorcli example bogus '
expect 'qorcli example --help '
# A stray word is a problem of the line, but the parser reads on after it.
expect 'qorcli example firewall set --enabled yes extra ' --profile
COMP_WORDBREAKS=${default_wordbreaks//=/}
expect 'qorcli example firewall set --enabled=' --enabled=true --enabled=false --enabled=1 \
    --enabled=0 --enabled=yes --enabled=no
COMP_WORDBREAKS=$default_wordbreaks

# --- orvane-analyze -----------------------------------------------------

expect 'orvane-analyze ' blame critical-chain plot trace status compare aggregate verify
expect 'orvane-analyze c' critical-chain compare
expect_line 'orvane-analyze --json b' 'orvane-analyze --json blame '
expect 'orvane-analyze -' -h --help --json -r --record --threshold --root
expect 'orvane-analyze blame -' -h --help --json -r --record
expect 'orvane-analyze critical-chain --json -' -h --help -r --record
expect 'orvane-analyze -r x plot -' -h --help --json
expect 'orvane-analyze trace -' -h --help -r --record
expect 'orvane-analyze compare -' -h --help --json --threshold
expect 'orvane-analyze aggregate -' -h --help --json
expect 'orvane-analyze verify --' --help --json --root
expect 'orvane-analyze --threshold 5 compare --' --help --json
expect "orvane-analyze -r $scratch/records/" "$scratch/records/a.jsonl" \
    "$scratch/records/b.jsonl" "$scratch/records/sub"
expect_line "orvane-analyze --record $scratch/records/a" \
    "orvane-analyze --record $scratch/records/a.jsonl "
expect_line "orvane-analyze --record=$scratch/records/b" \
    "orvane-analyze --record=$scratch/records/b.jsonl "
expect "orvane-analyze verify --root $scratch/records/" "$scratch/records/sub"
expect "orvane-analyze --root=$scratch/records/" "$scratch/records/sub"
expect 'orvane-analyze --threshold '
expect 'orvane-analyze --threshold='
expect "orvane-analyze compare $scratch/records/" "$scratch/records/a.jsonl" \
    "$scratch/records/b.jsonl" "$scratch/records/sub"
expect "orvane-analyze compare $scratch/records/a.jsonl $scratch/records/b" \
    "$scratch/records/b.jsonl"
expect "orvane-analyze compare $scratch/records/a.jsonl $scratch/records/b.jsonl $scratch/"
expect "orvane-analyze aggregate x y $scratch/records/a" "$scratch/records/a.jsonl"
expect 'orvane-analyze blame '
expect 'orvane-analyze -- -'
# critical-chain: the plugins of the record it reads.
expect 'orvane-analyze critical-chain ' gamma
expect "orvane-analyze -r $scratch/first.jsonl critical-chain " alpha beta
expect "orvane-analyze critical-chain --record=$scratch/first.jsonl a" alpha
expect "orvane-analyze critical-chain -r$scratch/first.jsonl " alpha beta
expect 'orvane-analyze critical-chain gamma '
expect "orvane-analyze -r $scratch/missing.jsonl critical-chain "
expect "orvane-analyze -r $scratch/records critical-chain "

# --- bash itself --------------------------------------------------------

# The same completions typed into an interactive bash on a pseudo-terminal,
# TAB keys and all, each line run by Enter, with the programs replaced by
# shell functions that print their arguments (qorcli's still answers
# --complete): bash and readline split and replace the words themselves.
typed=()
received=()
type_line()
{
    typed+=("$1")
    received+=("$2")
}
type_line $'orvane --plugin=firewall.json,fi\t' '<--plugin=firewall.json,firstboot.json>'
type_line $'orvane --met\ta\t' '<--method=apply_host_profile>'
type_line $'orvane --disable-plugins=firewall,n\t' '<--disable-plugins=firewall,net>'
type_line $'orvane --plugin lib\t' '<--plugin><libnet.so>'
type_line $'qorcli ex\tf\ts\t--enabled=t\t--p\t' '<example><firewall><set><--enabled=true><--profile>'
type_line $'orvane-analyze --record='"$scratch"$'/records/a\tbl\t' \
    "<--record=$scratch/records/a.jsonl><blame>"

# type_lines WORDBREAKS: types the lines above with COMP_WORDBREAKS set so.
type_lines()
{
    local rc=$scratch/interactive.rc i keys
    # shellcheck disable=SC2016 # these lines are for the interactive bash
    {
        echo 'source /usr/share/bash-completion/bash_completion'
        echo 'arguments() { printf "ARGS:"; printf "<%s>" "$@"; echo; }'
        echo 'orvane() { arguments "$@"; }'
        echo 'orvane-analyze() { arguments "$@"; }'
        echo 'qorcli() { if [[ $1 == --complete ]]; then command qorcli "$@"; else arguments "$@"; fi; }'
        printf 'COMP_WORDBREAKS=%q\n' "$1"
    } >"$rc"
    local -a got
    mapfile -t got < <(printf '%s\n' "${typed[@]}" exit |
        INPUTRC=/dev/null timeout 60 script -qc "bash --rcfile $rc -i" /dev/null 2>&1 |
        tr -d '\r' | sed -n 's/^ARGS://p')
    for i in "${!typed[@]}"; do
        keys=${typed[i]//$'\t'/<TAB>}
        if [[ ${got[i]-(nothing)} != "${received[i]}" ]]; then
            fail "typed '$keys' into bash (COMP_WORDBREAKS=${1@Q})" \
                "expected arguments: ${received[i]}" "got arguments:      ${got[i]-(nothing)}"
        else
            pass
        fi
    done
}
type_lines $' \t\n"\'><=;|&(:'
type_lines $' \t\n"\'><=;|&(:,'
type_lines $' \t\n"\'><;|&(:'

# --- an empty, then a missing plugin directory --------------------------

find "$plugins" -mindepth 1 -delete
expect 'orvane --plugin=' settle.debug report.debug
expect 'orvane --disable-plugins='
rm -f "$debug_configuration"
expect 'orvane --plugin='
expect 'orvane --plugin=a.json,'
rmdir "$plugins"
expect 'orvane --plugin='
expect 'orvane --disable-plugins=x,'
expect 'orvane --interactive-mode-requires '
expect_line 'orvane --daemon=w' 'orvane --daemon=wait '

printf '%d passed, %d failed\n' "$passed" "$failed"
((failed == 0))
