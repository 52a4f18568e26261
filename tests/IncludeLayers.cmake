# The graph core (the lock, the vertex, the barriers and their registry, the
# ready list, the executor, the dump and what a pass reports) runs any kind
# of vertex and so knows none: nothing it includes, directly or through
# another header of the program, is a plugin kind, a loader or any other
# file of a layer above it (of the shared files at the top, only Exception
# and SystemAlert). Nor does it include itself round in a circle: a file of
# the core never reaches itself through the files it includes (a header and
# its source count as one).
# Fails, naming the path of includes, when either stops being true.
#   cmake -DSOURCE_DIR=... -P IncludeLayers.cmake
cmake_minimum_required(VERSION 3.25)

set(program_dir ${SOURCE_DIR}/apps/orvane/orvaner)
set(core GraphLock Node ReadyQueue InitBarrier PriorityBarrier BarrierRegistry ReadyList Executor
         DependencyDump PassObserver)
# Every file whose name says "Plugin" (the plugin, its kinds, the plugin
# list, the enumeration), and the other loaders and plugin-side helpers.
set(plugin_pattern "Plugin")
set(plugin_side InitdDiscovery DebugConfiguration HostProfile InteractiveConsole)
# Of the files every layer may include, the core needs only the exceptions
# and the system alert; the run options and logging set-up belong to a run.
# Any other file the core reaches belongs to a layer above it (the run, the
# executor process, the plugins).
set(shared Exception SystemAlert)

# Files are found by name wherever they sit below the program's directory,
# and an include is known by the name of the header it names.
file(GLOB_RECURSE program_files ${program_dir}/*.h ${program_dir}/*.cpp)
set(components "")
foreach(file IN LISTS program_files)
  get_filename_component(stem ${file} NAME_WE)
  list(APPEND files_of_${stem} ${file})
  list(APPEND components ${stem})
endforeach()
list(REMOVE_DUPLICATES components)

foreach(name IN LISTS core)
  if(NOT DEFINED files_of_${name})
    message(FATAL_ERROR "no file of the graph core '${name}' below ${program_dir}")
  endif()
endforeach()

# uses_<stem>: the program's headers that the header or source of <stem>
# include, other than its own.
foreach(stem IN LISTS components)
  set(uses_${stem} "")
  foreach(file IN LISTS files_of_${stem})
    file(STRINGS ${file} include_lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"orvaner/")
    foreach(line IN LISTS include_lines)
      string(REGEX REPLACE "^.*\"orvaner/(.*/)?([^/\"]+)\\.h\".*$" "\\2" used "${line}")
      if(NOT used STREQUAL stem)
        list(APPEND uses_${stem} ${used})
      endif()
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES uses_${stem})
endforeach()

function(is_plugin_side name result)
  if(name MATCHES "${plugin_pattern}" OR name IN_LIST plugin_side)
    set(${result} TRUE PARENT_SCOPE)
  else()
    set(${result} FALSE PARENT_SCOPE)
  endif()
endfunction()

# The include path from `from` to `to` found by the last reach_from, as
# "A -> B -> C".
function(path_to from to result)
  set(path ${to})
  set(at ${came_from_${to}})
  set(path "${at} -> ${path}")
  while(NOT at STREQUAL from)
    set(at ${came_from_${at}})
    set(path "${at} -> ${path}")
  endwhile()
  set(${result} "${path}" PARENT_SCOPE)
endfunction()

# Everything reachable from `start` through includes, breadth first; sets
# came_from_<stem> in the caller for path_to.
macro(reach_from start)
  set(reached "")
  set(frontier ${uses_${start}})
  foreach(next IN LISTS frontier)
    set(came_from_${next} ${start})
  endforeach()
  while(frontier)
    list(POP_FRONT frontier at)
    if(at IN_LIST reached)
      continue()
    endif()
    list(APPEND reached ${at})
    foreach(next IN LISTS uses_${at})
      if(NOT next IN_LIST reached AND NOT next IN_LIST frontier)
        set(came_from_${next} ${at})
        list(APPEND frontier ${next})
      endif()
    endforeach()
  endwhile()
endmacro()

set(failures "")
foreach(name IN LISTS core)
  reach_from(${name})
  foreach(used IN LISTS reached)
    is_plugin_side(${used} plugin)
    if(plugin)
      path_to(${name} ${used} path)
      list(APPEND failures "the graph core reaches a plugin kind or loader: ${path}")
    elseif(NOT used IN_LIST core AND NOT used IN_LIST shared)
      path_to(${name} ${used} path)
      list(APPEND failures "the graph core reaches a layer above it: ${path}")
    endif()
  endforeach()
  if(name IN_LIST reached)
    path_to(${name} ${name} path)
    list(APPEND failures "the graph core includes itself round in a circle: ${path}")
  endif()
endforeach()

if(failures)
  list(JOIN failures "\n  " text)
  message(FATAL_ERROR "include layers broken:\n  ${text}")
endif()
list(JOIN core ", " core_text)
message(STATUS "graph core (${core_text}): nothing of the layers above reached, no include cycle")
