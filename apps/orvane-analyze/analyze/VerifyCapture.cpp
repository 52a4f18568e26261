#include "analyze/VerifyCapture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "log/Log.h"
#include "orvaner/Logging.h"
#include "orvaner/SystemAlert.h"

namespace orvane::analyze {
namespace {

[[noreturn]] void ThrowSystemError(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// Standard error pointed at @p target for the life of the object.
class StandardErrorRedirect {
 public:
  explicit StandardErrorRedirect(int target) : saved_(dup(STDERR_FILENO)) {
    // A process started with standard error closed has nothing to save;
    // it is closed again afterwards.
    if (saved_ < 0 && errno != EBADF) {
      ThrowSystemError("cannot keep standard error");
    }
    std::fflush(stderr);
    if (dup2(target, STDERR_FILENO) < 0) {
      const int error = errno;
      if (saved_ >= 0) close(saved_);
      errno = error;
      ThrowSystemError("cannot redirect standard error");
    }
  }
  ~StandardErrorRedirect() {
    std::fflush(stderr);
    if (saved_ >= 0) {
      dup2(saved_, STDERR_FILENO);
      close(saved_);
    } else {
      close(STDERR_FILENO);
    }
  }
  StandardErrorRedirect(const StandardErrorRedirect&) = delete;
  StandardErrorRedirect& operator=(const StandardErrorRedirect&) = delete;

 private:
  int saved_;
};

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  while (start < text.size()) {
    std::string::size_type end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace

VerifyCapture::VerifyCapture() {
  collected_ = memfd_create("orvane-verify-log", MFD_CLOEXEC);
  if (collected_ < 0) {
    ThrowSystemError("cannot create a file to collect log lines in");
  }
  // Without outputs the logging library writes every message to standard
  // error, one line each, and nothing to syslog.
  Log_Exit();
  ReplaceSystemAlertSink([this](const std::string& text) { alerts_.push_back(text); });
  ReplaceAlertLogSink([this](const std::string& text) { kernelLines_.push_back(text); });
}

VerifyCapture::~VerifyCapture() {
  ReplaceSystemAlertSink({});
  ReplaceAlertLogSink({});
  close(collected_);
}

VerifyMessages VerifyCapture::Run(const std::function<void()>& step) {
  alerts_.clear();
  kernelLines_.clear();
  try {
    StandardErrorRedirect redirect(collected_);
    step();
  } catch (...) {
    // What the step said before it threw must not be taken for what the
    // next one says.
    alerts_.clear();
    kernelLines_.clear();
    TakeCollected();
    throw;
  }
  VerifyMessages messages;
  messages.alerts = std::move(alerts_);
  messages.lines = SplitLines(TakeCollected());
  // Loading writes nothing to the kernel log; should it ever, the lines are
  // what it said all the same.
  messages.lines.insert(messages.lines.end(), kernelLines_.begin(), kernelLines_.end());
  alerts_.clear();
  kernelLines_.clear();
  return messages;
}

std::string VerifyCapture::TakeCollected() {
  std::string text;
  char buffer[4096];
  for (off_t offset = 0;;) {
    const ssize_t count = pread(collected_, buffer, sizeof buffer, offset);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) ThrowSystemError("cannot read the collected log lines");
    if (count == 0) break;
    text.append(buffer, static_cast<std::size_t>(count));
    offset += count;
  }
  // Standard error shared the file's offset, which starts again at 0.
  if (ftruncate(collected_, 0) != 0 || lseek(collected_, 0, SEEK_SET) != 0) {
    ThrowSystemError("cannot empty the collected log lines");
  }
  return text;
}

}  // namespace orvane::analyze
