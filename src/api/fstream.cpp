// The synchronised file streams: standard streams on the mirror file, with
// beforeOpenStream() run before the file buffer is opened and
// afterCloseStream() after it is closed.
#include "vel/fstream.h"

#include <cstdio>
#include <string>

#include "vel/hooks.h"
#include "vel/log.h"
#include "vel/paths.h"

// The hooks test the open-mode bits numerically; the values they expect are
// those of this standard library, so the bits are handed over unchanged.
static_assert(static_cast<int>(std::ios_base::app) == 1, "open-mode bit app must be 1");
static_assert(static_cast<int>(std::ios_base::ate) == 2, "open-mode bit ate must be 2");
static_assert(static_cast<int>(std::ios_base::binary) == 4, "open-mode bit binary must be 4");
static_assert(static_cast<int>(std::ios_base::in) == 8, "open-mode bit in must be 8");
static_assert(static_cast<int>(std::ios_base::out) == 16, "open-mode bit out must be 16");
static_assert(static_cast<int>(std::ios_base::trunc) == 32, "open-mode bit trunc must be 32");

namespace VEL {

namespace {

// Closes the file buffer and runs the after-close hook of an attached
// stream. The stream is detached before failbit is set, so an exception
// mask set by the application cannot skip the hook.
template <class Stream>
void closeStream(Stream& stream, VelFStreamImpl& impl) {
  bool failed = stream.rdbuf()->close() == nullptr;
  impl.detach();
  if (failed) {
    stream.setstate(std::ios_base::failbit);
  }
}

template <class Stream>
void openStream(Stream& stream, VelFStreamImpl& impl, const char* path,
                std::ios_base::openmode mode, std::ios_base::openmode added, const char* className,
                bool announce) {
  if (impl.attached()) {
    closeStream(stream, impl);
  }
  mode |= added;
  bool hookOk = false;
  if (!impl.attach(path, static_cast<int32_t>(mode), className, &hookOk) || !hookOk) {
    // Nothing to open, or the hook refused: the stream state is left alone.
    return;
  }
  std::string mirror = impl.mirrorPath();
  if (stream.rdbuf()->open(mirror, mode) == nullptr) {
    stream.setstate(std::ios_base::failbit);
    return;
  }
  impl.markOpened();
  stream.clear();
  if (announce) {
    std::printf("ofstream open file:%s\n", mirror.c_str());
  }
}

}  // namespace

bool VelFStreamImpl::attach(const char* path, int32_t mode, const char* className, bool* hookOk) {
  *hookOk = false;
  std::string cleaned = normalizePath(path, true, '/');
  if (cleaned.empty()) {
    return false;
  }
  // Stored before the hook runs, and kept when it fails, so that close()
  // detaches the stream; the after-close hook runs only once the file was
  // opened (markOpened).
  path_ = cleaned;
  mode_ = mode;
  opened_ = false;
  int32_t rtn = beforeOpenStream(path_.c_str(), mode_);
  if (rtn != 0 && rtn != -19) {
    if (LogInterface* logger = getLogger()) {
      logger->log(kLogError,
                  "[VEL] %s::open(), failed to call beforeOpenStream: %s(%d), errCode:%d",
                  className, path_.c_str(), mode_, rtn);
    }
    return true;
  }
  *hookOk = true;
  return true;
}

std::string VelFStreamImpl::mirrorPath() const { return getMirrorPath(path_); }

void VelFStreamImpl::detach() {
  if (path_.empty()) {
    return;
  }
  if (!opened_) {
    // Nothing was opened, so nothing was written: the mirror may hold a
    // stale copy that must not replace the service's.
    path_.clear();
    return;
  }
  opened_ = false;
  int32_t rtn = afterCloseStream(path_.c_str(), mode_);
  if (rtn != 0) {
    if (LogInterface* logger = getLogger()) {
      logger->log(kLogError,
                  "[VEL] VelFStreamImpl::afterCloseStream(), failed to call "
                  "VEL::afterCloseStream: %s(%d), errCode:%d",
                  path_.c_str(), mode_, rtn);
    }
  }
  path_.clear();
}

// ---- fstream ----

fstream::fstream() : impl_(new VelFStreamImpl) {}

fstream::fstream(const char* path, std::ios_base::openmode mode) : fstream() { open(path, mode); }

fstream::fstream(const std::string& path, std::ios_base::openmode mode) : fstream() {
  open(path.c_str(), mode);
}

fstream::~fstream() {
  if (impl_->attached()) {
    try {
      close();
    } catch (...) {  // an application exception mask must not escape here
    }
  }
}

void fstream::open(const char* path, std::ios_base::openmode mode) {
  openStream(*this, *impl_, path, mode, std::ios_base::openmode(), "fstream", false);
}

void fstream::open(const std::string& path, std::ios_base::openmode mode) {
  open(path.c_str(), mode);
}

void fstream::close() { closeStream(*this, *impl_); }

// ---- ifstream ----

ifstream::ifstream() : impl_(new VelFStreamImpl) {}

ifstream::ifstream(const char* path, std::ios_base::openmode mode) : ifstream() {
  open(path, mode);
}

ifstream::ifstream(const std::string& path, std::ios_base::openmode mode) : ifstream() {
  open(path.c_str(), mode);
}

ifstream::~ifstream() {
  if (impl_->attached()) {
    try {
      close();
    } catch (...) {  // an application exception mask must not escape here
    }
  }
}

void ifstream::open(const char* path, std::ios_base::openmode mode) {
  openStream(*this, *impl_, path, mode, std::ios_base::in, "ifstream", false);
}

void ifstream::open(const std::string& path, std::ios_base::openmode mode) {
  open(path.c_str(), mode);
}

void ifstream::close() { closeStream(*this, *impl_); }

// ---- ofstream ----

ofstream::ofstream() : impl_(new VelFStreamImpl) {}

ofstream::ofstream(const char* path, std::ios_base::openmode mode) : ofstream() {
  open(path, mode);
}

ofstream::ofstream(const std::string& path, std::ios_base::openmode mode) : ofstream() {
  open(path.c_str(), mode);
}

ofstream::~ofstream() {
  if (impl_->attached()) {
    try {
      close();
    } catch (...) {  // an application exception mask must not escape here
    }
  }
}

void ofstream::open(const char* path, std::ios_base::openmode mode) {
  openStream(*this, *impl_, path, mode, std::ios_base::out, "ofstream", true);
}

void ofstream::open(const std::string& path, std::ios_base::openmode mode) {
  open(path.c_str(), mode);
}

void ofstream::close() { closeStream(*this, *impl_); }

}  // namespace VEL
