// What a dump or restore run is handed by the command line.
#pragma once
#include <cstdint>

#include "core/api/device.h"
#include "core/api/message.h"
#include "core/api/scanner.h"
#include "mdsnap/options.h"

namespace mdsnap {

constexpr uint32_t kWorkBufferSize = 2 * 1024 * 1024;

struct RunContext {
  const Options* opt = nullptr;
  const char* deviceName = nullptr;
  int imageFd = -1;                        // the image file, or standard output/input
  api::IDeviceRWBlock* device = nullptr;
  int deviceFd = -1;                       // the dump reads and the restore writes blocks here directly
  api::IMessage* msg = nullptr;            // never null (a silent sink prints nothing)
  api::CLibEnv* env = nullptr;
  uint8_t* work = nullptr;                 // kWorkBufferSize bytes
  uint64_t volumeSize = 0;
  uint32_t sectorLog2 = 9;
  uint8_t** bitmap = nullptr;              // out: freed by the caller through env->mem
};

api::status_t Dump(RunContext& ctx);
api::status_t Restore(RunContext& ctx);
// Describes an image; returns 0, -4, -5 or -6.
int Info(const Options& opt, const char* path);

// Whole command-line run; returns the full 32-bit status (the process sees
// its low 8 bits).
int RunMain(int argc, char** argv);

// Image-stream transfers of any length, split into calls of at most 256 MiB.
bool WriteAll(int fd, const void* buf, uint64_t len, api::IMessage* verbose);
bool ReadAll(int fd, void* buf, uint64_t len, api::IMessage* verbose);
// Reads up to len bytes, looping over short reads; returns the count read.
uint64_t ReadUpTo(int fd, void* buf, uint64_t len);

// Holes are made of whole aligned blocks of this size.
constexpr uint32_t kHoleBlock = 4096;
bool IsZero(const uint8_t* p, uint32_t len);

// The image stream of a dump, written front to back. Into a regular file the
// writes are positioned, and aligned blocks of zeros that lie at or beyond
// the file's old end (all of a new or emptied file) are left as holes, which
// read back as zeros; below the old end an existing file's bytes are all
// overwritten, so none of them shows through. A pipe gets every byte.
class ImageWriter {
 public:
  explicit ImageWriter(int fd);
  bool Write(const void* buf, uint64_t len, api::IMessage* verbose);
  // len zero bytes, with no buffer to read them from.
  bool Zeros(uint64_t len);
  // A stream (pipe, character device) takes bytes straight from the volume's
  // descriptor, without a copy through the process. Returns how many of the
  // len bytes at offset went out; fewer when the kernel cannot move them
  // that way or a call failed, and the caller moves the rest itself (so a
  // failure is reported as a read or a write failure, as ever).
  uint64_t Send(int fd, uint64_t offset, uint64_t len);
  bool Streams() const { return !positioned_ && sendable_; }
  // A file that ends in a hole gets its full size; the file position is left
  // at the image's end, as plain writes would leave it.
  bool Finish();

 private:
  bool Put(const uint8_t* p, uint64_t len, bool zeros, api::IMessage* verbose);

  int fd_;
  bool positioned_ = false;
  bool sendable_ = true;
  uint64_t pos_ = 0;
  uint64_t holesFrom_ = UINT64_MAX;
};

}  // namespace mdsnap
