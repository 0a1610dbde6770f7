// Drop-in file streams over the mirror. VEL::fstream, VEL::ifstream and
// VEL::ofstream take application paths (relative to the mirror root), open
// the mirror copy, and run the synchronisation hooks around the stream's
// life: beforeOpenStream() when a file is opened (so a file to be read is
// pulled from the service first) and afterCloseStream() when it is closed
// (so a written file is pushed to the service).
//
//   VEL::ofstream out("a/b.txt");   // mirror file opened, parent synced
//   out << "hello";
//   out.close();                    // uploaded to the service
//
// open() and close() hide the standard members of the same names; the hooks
// run only when the stream is opened and closed through the VEL class. A
// hook failure on open leaves is_open() false without setting failbit, so
// callers must test is_open(). The hook status -19 (node absent on the
// service: a new file) counts as success. Once a file was opened, close(),
// a further open() or the destructor runs the after-close hook exactly once.
// A stream that never opened (the hook refused, or the file buffer could not
// open the mirror file) runs no hook when it is closed: it has written
// nothing, and the mirror's copy may be older than the service's. A stream
// object belongs to one thread at a time; the streams never throw unless the
// application sets exception masks.
#ifndef VEL_FSTREAM_H_
#define VEL_FSTREAM_H_

#include <cstdint>
#include <fstream>
#include <ios>
#include <memory>
#include <string>

#include "vel/export.h"

namespace VEL {

// What a stream remembers between open() and close(): the cleaned
// application path it was last asked to open (empty when detached), the
// open-mode bits handed to the hooks, including the bit the class adds, and
// whether the file buffer opened the mirror file.
class VEL_API VelFStreamImpl {
 public:
  VelFStreamImpl() = default;
  VelFStreamImpl(const VelFStreamImpl&) = delete;
  VelFStreamImpl& operator=(const VelFStreamImpl&) = delete;

  const std::string& path() const { return path_; }
  int32_t mode() const { return mode_; }
  bool attached() const { return !path_.empty(); }

  // Cleans `path`; returns false (and stays detached) when it cleans to
  // nothing. Otherwise stores the cleaned path and `mode`, runs
  // beforeOpenStream() and returns true with `*hookOk` telling whether the
  // file may be opened; a refusing hook is logged under `className`.
  bool attach(const char* path, int32_t mode, const char* className, bool* hookOk);
  // The mirror path of the attached file.
  std::string mirrorPath() const;
  // Records that the file buffer opened the attached file.
  void markOpened() { opened_ = true; }
  // Detaches the stream. Runs afterCloseStream() (logging a failure) only
  // when the attached file was opened. Does nothing when detached.
  void detach();

 private:
  std::string path_;
  int32_t mode_ = 0;
  bool opened_ = false;
};

class VEL_API fstream : public std::basic_fstream<char> {
 public:
  fstream();
  explicit fstream(const char* path,
                   std::ios_base::openmode mode = std::ios_base::in | std::ios_base::out);
  explicit fstream(const std::string& path,
                   std::ios_base::openmode mode = std::ios_base::in | std::ios_base::out);
  fstream(const fstream&) = delete;
  fstream& operator=(const fstream&) = delete;
  virtual ~fstream();

  void open(const char* path,
            std::ios_base::openmode mode = std::ios_base::in | std::ios_base::out);
  void open(const std::string& path,
            std::ios_base::openmode mode = std::ios_base::in | std::ios_base::out);
  void close();

 private:
  std::unique_ptr<VelFStreamImpl> impl_;
};

class VEL_API ifstream : public std::basic_ifstream<char> {
 public:
  ifstream();
  explicit ifstream(const char* path, std::ios_base::openmode mode = std::ios_base::in);
  explicit ifstream(const std::string& path, std::ios_base::openmode mode = std::ios_base::in);
  ifstream(const ifstream&) = delete;
  ifstream& operator=(const ifstream&) = delete;
  virtual ~ifstream();

  // `in` is always added to `mode`.
  void open(const char* path, std::ios_base::openmode mode = std::ios_base::in);
  void open(const std::string& path, std::ios_base::openmode mode = std::ios_base::in);
  void close();

 private:
  std::unique_ptr<VelFStreamImpl> impl_;
};

class VEL_API ofstream : public std::basic_ofstream<char> {
 public:
  ofstream();
  explicit ofstream(const char* path, std::ios_base::openmode mode = std::ios_base::out);
  explicit ofstream(const std::string& path, std::ios_base::openmode mode = std::ios_base::out);
  ofstream(const ofstream&) = delete;
  ofstream& operator=(const ofstream&) = delete;
  virtual ~ofstream();

  // `out` is always added to `mode`. Prints "ofstream open file:<mirror
  // path>" on standard output after a successful open.
  void open(const char* path, std::ios_base::openmode mode = std::ios_base::out);
  void open(const std::string& path, std::ios_base::openmode mode = std::ios_base::out);
  void close();

 private:
  std::unique_ptr<VelFStreamImpl> impl_;
};

}  // namespace VEL

#endif  // VEL_FSTREAM_H_
