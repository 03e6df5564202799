// POSIX side of the tool's files: image files, restore targets, the
// standard streams.
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#ifdef __linux__
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

#include <cerrno>

#include "platform/platform.h"

namespace api {

bool StdinIsConsole() { return ::isatty(STDIN_FILENO); }

void SetBinaryMode(int) {}  // no text mode here

int OpenFileForReading(const char* path) { return ::open(path, O_RDONLY | O_CLOEXEC); }

int OpenFileForWriting(const char* path) { return ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666); }

int PathIsRegularFile(const char* path) {
  struct stat st {};
  if (::stat(path, &st) != 0) return -1;
  return S_ISREG(st.st_mode) ? 1 : 0;
}

void CloseFile(int fd) { ::close(fd); }

bool RegularFileSize(int fd, uint64_t* size) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
  *size = uint64_t(st.st_size);
  return true;
}

int64_t FilePosition(int fd) { return ::lseek(fd, 0, SEEK_CUR); }

bool FileAppends(int fd) {
  int flags = ::fcntl(fd, F_GETFL);
  return flags < 0 || (flags & O_APPEND);
}

bool SeekFile(int fd, uint64_t offset) { return ::lseek(fd, off_t(offset), SEEK_SET) == off_t(offset); }

int64_t FileRead(int fd, void* buffer, size_t count) {
  for (;;) {
    ssize_t n = ::read(fd, buffer, count);
    if (n >= 0 || errno != EINTR) return n;
  }
}

int64_t FileWrite(int fd, const void* buffer, size_t count) {
  for (;;) {
    ssize_t n = ::write(fd, buffer, count);
    if (n >= 0 || errno != EINTR) return n;
  }
}

int64_t FileReadAt(int fd, void* buffer, size_t count, uint64_t offset) {
  for (;;) {
    ssize_t n = ::pread(fd, buffer, count, off_t(offset));
    if (n >= 0 || errno != EINTR) return n;
  }
}

int64_t FileWriteAt(int fd, const void* buffer, size_t count, uint64_t offset) {
  for (;;) {
    ssize_t n = ::pwrite(fd, buffer, count, off_t(offset));
    if (n >= 0 || errno != EINTR) return n;
  }
}

int64_t FileReadCachedAt(int fd, void* buffer, size_t count, uint64_t offset, bool* unsupported) {
  *unsupported = false;
#ifdef RWF_NOWAIT
  struct iovec to = {buffer, count};
  for (;;) {
    ssize_t n = ::preadv2(fd, &to, 1, off_t(offset), RWF_NOWAIT);
    if (n >= 0 || errno != EINTR) {
      if (n < 0 && (errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL)) *unsupported = true;
      return n;
    }
  }
#else
  (void)fd, (void)buffer, (void)count, (void)offset;
  *unsupported = true;
  errno = ENOSYS;
  return -1;
#endif
}

void FileWriteBehind(int fd, uint64_t offset, uint64_t count) {
#ifdef SYNC_FILE_RANGE_WRITE
  ::sync_file_range(fd, off_t(offset), off_t(count), SYNC_FILE_RANGE_WRITE);
#else
  (void)fd, (void)offset, (void)count;
#endif
}

void FilePrefetch(int fd, uint64_t offset, uint64_t count) {
#ifdef POSIX_FADV_WILLNEED
  ::posix_fadvise(fd, off_t(offset), off_t(count), POSIX_FADV_WILLNEED);
#else
  (void)fd, (void)offset, (void)count;
#endif
}

int64_t FileSendAt(int out, int in, size_t count, uint64_t offset, bool* unsupported) {
  *unsupported = false;
  for (;;) {
    off_t at = off_t(offset);
    ssize_t n = ::sendfile(out, in, &at, count);
    if (n >= 0 || errno != EINTR) {
      if (n < 0 && (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) *unsupported = true;
      return n;
    }
  }
}

bool ResizeFile(int fd, uint64_t size) { return size <= uint64_t(INT64_MAX) && ::ftruncate(fd, off_t(size)) == 0; }

bool MarkSparse(int) { return true; }  // regular files are sparse until written

#ifdef __linux__
// Space a file has reserved but never written (preallocated, or a fresh
// journal made by fallocate) reads as zeros, yet SEEK_DATA calls it data as
// soon as its zero pages sit in the page cache. The extent map tells it
// apart. Dirty pages are written back first, since an extent holding data
// that is still only in memory is reported unwritten until then.
// Narrows the data extent [offset, *end): true when offset lies in such
// space, false when it holds data; either way *end comes in to where that
// kind ends as far as one look shows.
static bool UnwrittenAt(int fd, uint64_t offset, uint64_t* end) {
  constexpr unsigned kExtents = 32;
  union {
    struct fiemap map;
    uint8_t bytes[sizeof(struct fiemap) + kExtents * sizeof(struct fiemap_extent)];
  } q = {};
  q.map.fm_start = offset;
  q.map.fm_length = *end - offset;
  q.map.fm_flags = FIEMAP_FLAG_SYNC;
  q.map.fm_extent_count = kExtents;
  if (::ioctl(fd, FS_IOC_FIEMAP, &q.map) != 0) return false;
  constexpr uint32_t kZeros = FIEMAP_EXTENT_UNWRITTEN;
  constexpr uint32_t kUnsure = FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_ENCODED |
                               FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DATA_TAIL | FIEMAP_EXTENT_NOT_ALIGNED;
  const struct fiemap_extent* e = q.map.fm_extents;
  auto zeros = [&](unsigned i) { return (e[i].fe_flags & (kZeros | kUnsure)) == kZeros; };
  const unsigned n = q.map.fm_mapped_extents < kExtents ? q.map.fm_mapped_extents : kExtents;
  unsigned i = 0;
  while (i < n && e[i].fe_logical + e[i].fe_length <= offset) ++i;
  if (i == n || e[i].fe_logical > offset) return false;  // not mapped here after all: leave it to the reads
  const bool unwritten = zeros(i);
  // Adjacent extents of the same kind continue the run.
  uint64_t stop = e[i].fe_logical + e[i].fe_length;
  for (++i; i < n && e[i].fe_logical == stop && zeros(i) == unwritten; ++i) stop += e[i].fe_length;
  if (stop < *end) *end = stop;
  return unwritten;
}
#endif

bool FileExtent(int fd, uint64_t offset, uint64_t size, bool* hole, uint64_t* end) {
  off_t data = ::lseek(fd, off_t(offset), SEEK_DATA);
  if (data < 0 && errno == ENXIO) data = off_t(size);  // nothing but a hole up to the end
  if (data >= 0 && uint64_t(data) > offset) {
    *hole = true;
    *end = uint64_t(data) < size ? uint64_t(data) : size;
    return true;
  }
  off_t stop = data < 0 ? -1 : ::lseek(fd, off_t(offset), SEEK_HOLE);
  if (stop <= off_t(offset)) return false;
  *hole = false;
  *end = uint64_t(stop);
#ifdef __linux__
  *hole = UnwrittenAt(fd, offset, end);
#endif
  return true;
}

}  // namespace api
