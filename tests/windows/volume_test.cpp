// The Windows volume device against recorded system answers: what wine
// cannot stand in for (volume handles, lock, dismount, geometry, the length
// queries, handles that refuse unaligned transfers).
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "platform/win32/volume.h"

using namespace api;
using namespace api::win32;

namespace {

std::string Drain(FILE* f) {
  std::string s;
  std::rewind(f);
  for (int c; (c = std::fgetc(f)) != EOF;) s.push_back(char(c));
  return s;
}

// A disk in memory that answers as a recorded Windows machine did: each
// control code's answers in order (the last one repeats), and a handle that
// may refuse transfers not aligned to 512 bytes, as volume handles do.
class RecordedSystem : public IVolumeSystem {
 public:
  // `bytesPerSector` 0: an ordinary file, which has no drive geometry.
  explicit RecordedSystem(size_t size, uint32_t bytesPerSector = 0) : disk(size), geometry(bytesPerSector) {
    for (size_t i = 0; i < size; ++i) disk[i] = uint8_t(i * 7 + i / 4096);
    out_ = std::tmpfile();
    err_ = std::tmpfile();
  }
  ~RecordedSystem() override {
    std::fclose(out_);
    std::fclose(err_);
  }

  std::vector<uint8_t> disk;
  int64_t seekEnd = -2;  // -2: the disk's size
  uint32_t geometry;  // bytes per sector
  std::deque<bool> locks{true}, dismounts{true};
  bool lengthInfo = true, partitionInfoEx = true, partitionInfo = true;
  uint32_t extendedError = 0;  // 0: allowed
  bool aligned = false;        // refuse unaligned transfers
  bool readable = true;
  int failReadsAt = -1;        // this many reads later, fail with EIO
  std::string input;
  std::vector<std::string> calls;
  int open = 0;

  std::string out() { return Drain(out_); }
  std::string err() { return Drain(err_); }

  int Open(const char* path, bool readOnly, int* err) override {
    calls.push_back(std::string(readOnly ? "open-ro " : "open ") + path);
    if (std::string(path).find("missing") != std::string::npos) {
      *err = ENOENT;
      return -1;
    }
    ++open;
    return 3;
  }
  void Close(int) override {
    calls.push_back("close");
    --open;
  }
  int64_t SeekEnd(int) override { return seekEnd == -2 ? int64_t(disk.size()) : seekEnd; }
  bool DriveGeometry(int, uint32_t* bytesPerSector) override {
    *bytesPerSector = geometry;
    return geometry != 0;
  }
  void FlushBuffers(int) override { calls.push_back("flush"); }
  bool LockVolume(int) override { return Next(locks, "lock"); }
  bool UnlockVolume(int) override {
    calls.push_back("unlock");
    return true;
  }
  bool DismountVolume(int) override { return Next(dismounts, "dismount"); }
  bool QueryLength(int, LengthQuery q, uint64_t* length) override {
    bool ok = q == LENGTH_INFO ? lengthInfo : q == PARTITION_INFO_EX ? partitionInfoEx : partitionInfo;
    *length = disk.size();
    return ok;
  }
  bool AllowExtendedAccess(int, uint32_t* winError) override {
    calls.push_back("extended");
    *winError = extendedError;
    return extendedError == 0;
  }
  bool Verify(int, uint64_t offset, uint32_t count) override { return offset + count <= disk.size(); }
  int64_t ReadAt(int, void* buffer, uint32_t count, uint64_t offset, int* err) override {
    if (failReadsAt >= 0 && failReadsAt-- == 0) {
      *err = EIO;
      return -1;
    }
    if (aligned && (offset % 512 || count % 512 || offset + count > disk.size())) {
      *err = EINVAL;  // a volume handle: whole sectors inside the volume only
      return -1;
    }
    if (offset >= disk.size()) return 0;
    uint64_t n = std::min<uint64_t>(count, disk.size() - offset);
    std::memcpy(buffer, disk.data() + offset, size_t(n));
    return int64_t(n);
  }
  int64_t WriteAt(int, const void* buffer, uint32_t count, uint64_t offset, int* err) override {
    if (aligned && (offset % 512 || count % 512)) {
      *err = EINVAL;
      return -1;
    }
    std::memcpy(disk.data() + offset, buffer, count);
    return count;
  }
  bool Readable(const char*) override { return readable; }
  void Sleep(uint32_t ms) override { calls.push_back("sleep " + std::to_string(ms)); }
  int ReadChar() override {
    if (input.empty()) return EOF;
    int c = input[0];
    input.erase(0, 1);
    return c;
  }
  FILE* Out() override { return out_; }
  FILE* Err() override { return err_; }

 private:
  bool Next(std::deque<bool>& answers, const char* what) {
    bool ok = answers.front();
    if (answers.size() > 1) answers.pop_front();
    calls.push_back(std::string(what) + (ok ? "" : " refused"));
    return ok;
  }
  FILE* out_;
  FILE* err_;
};

// Opens through the factory; status and device.
struct Opened {
  int status;
  IDeviceRWBlock* dev = nullptr;
  ~Opened() { delete dev; }
};
Opened* OpenOn(RecordedSystem& sys, const char* name, bool readOnly, bool force, uint32_t verbose = 0,
               uint32_t forced = 0) {
  auto* o = new Opened;
  o->status = CreateVolumeDeviceOn(&sys, name, readOnly, false, &o->dev, nullptr, force, verbose, forced);
  return o;
}

}  // namespace

TEST(WindowsVolume, NamesAndTraceLogPaths) {
  EXPECT_EQ(VolumePath("C:"), "\\\\.\\C:");
  EXPECT_EQ(VolumePath("D:\\x.img"), "\\\\.\\D:\\x.img");
  EXPECT_EQ(VolumePath("\\\\.\\PhysicalDrive1"), "\\\\.\\PhysicalDrive1");
  EXPECT_EQ(VolumePath("\\\\?\\Volume{d7c5ce70-3220-11db-b0fb-005056c00008}"),
            "\\\\?\\Volume{d7c5ce70-3220-11db-b0fb-005056c00008}");
  EXPECT_EQ(VolumePath("image.bin"), "image.bin");
  EXPECT_EQ(VolumePath(std::string(300, 'a').c_str()).size(), 260u);

  EXPECT_EQ(TraceLogPath("C:\\tools\\mdsnap.exe", "mdsnap"), "C:\\tools\\mdsnap.log");
  EXPECT_EQ(TraceLogPath("C:\\tools\\mdsnap", "mdsnap"), "C:\\tools\\log");
  EXPECT_EQ(TraceLogPath("mdsnap", "mdsnap"), "qorv.log");
  EXPECT_EQ(TraceLogPath(nullptr, "mdsnap"), "./mdsnap.log");
  std::string deep = "C:\\" + std::string(250, 'd') + ".e";  // 255 characters: "log" would not fit
  EXPECT_EQ(TraceLogPath(deep.c_str(), "mdsnap"), deep.substr(0, deep.size() - 2));
}

TEST(WindowsVolume, OrdinaryFileKeeps512AndTakesNoLock) {
  RecordedSystem sys(10000);
  std::unique_ptr<Opened> o(OpenOn(sys, "image.bin", false, true, 1));
  ASSERT_EQ(o->status, 0);
  EXPECT_EQ(o->dev->GetSectorSize(), 512u);
  EXPECT_EQ(o->dev->GetSize(), 10000u);
  EXPECT_EQ(sys.err(), "Can't get sector size of \"image.bin\". Use default 512 bytes\n");
  EXPECT_EQ(sys.out(), "\"image.bin\": disk size 0x2710 bytes. ~0GB, sector size 0x200\n");
  EXPECT_EQ(sys.calls, (std::vector<std::string>{"open image.bin", "flush"}));  // no lock, no extended access

  RecordedSystem missing(10);
  std::unique_ptr<Opened> m(OpenOn(missing, "missing.img", true, false));
  EXPECT_EQ(m->status, ENOENT);
  EXPECT_EQ(m->dev, nullptr);
  EXPECT_EQ(missing.err(), "Can't open \"missing.img\" : " + std::string(std::strerror(ENOENT)) + "\n");
}

TEST(WindowsVolume, LockedVolumeMessagesAndRelease) {
  RecordedSystem sys(1 << 20, 4096);
  sys.seekEnd = -1;
  sys.lengthInfo = false;           // the second query answers
  sys.extendedError = 87;           // already allowed: counts as success
  {
    std::unique_ptr<Opened> o(OpenOn(sys, "E:", false, true, 1, 512));
    ASSERT_EQ(o->status, 0);
    EXPECT_EQ(o->dev->GetSize(), uint64_t(1) << 20);
    EXPECT_EQ(o->dev->GetSectorSize(), 512u);  // forced
    EXPECT_EQ(sys.out(),
              "DeviceIoControl( \"E:\", IOCTL_DISK_GET_DRIVE_GEOMETRY ) => BytesPerSector = 4096\n"
              "\"E:\" is locked\n"
              "DeviceIoControl( \"E:\", IOCTL_DISK_GET_PARTITION_INFO_EX ) => 0x100000\n"
              "\"E:\": allowed EXTENDED_DASD_IO\n"
              "\"E:\": disk size 0x100000 bytes. ~0GB, sector size 0x1000\n"
              "E:: force to use sector size 0x200\n");
    EXPECT_EQ(sys.err(), "");
    sys.calls.clear();
  }
  // Released as it was taken: dismount and unlock the locked volume, flush, close.
  EXPECT_EQ(sys.calls, (std::vector<std::string>{"dismount", "unlock", "flush", "close"}));

  RecordedSystem odd(1 << 20, 2048);
  odd.seekEnd = -1;
  odd.lengthInfo = odd.partitionInfoEx = odd.partitionInfo = false;
  odd.extendedError = 5;
  std::unique_ptr<Opened> o(OpenOn(odd, "F:", false, true));
  EXPECT_EQ(o->status, 22);
  EXPECT_EQ(odd.err(), "Can't get the size of volume \"F:\"\n");
  EXPECT_EQ(odd.open, 0);
  odd.seekEnd = 1 << 20;
  std::unique_ptr<Opened> p(OpenOn(odd, "F:", false, true));
  EXPECT_EQ(p->status, 0);
  EXPECT_EQ(odd.err(), "Can't get the size of volume \"F:\"\nFSCTL_ALLOW_EXTENDED_DASD_IO failed \"F:\"\n"
                       "F:: non standard sector size 0x800 bytes\n");
}

TEST(WindowsVolume, DismountQuestionAndItsLimits) {
  const std::string question = "Can't lock volume \"G:\"\nPress 'y' to force dismount \"G:\"";
  const std::string dismounted = "Volume \"G:\" dismounted.  All opened handles to this volume are now invalid.\n";
  for (const char* answer : {"Y\n", "\n", "", "no\n"}) {
    RecordedSystem sys(1 << 16, 512);
    sys.locks = {false};
    sys.input = answer;
    std::unique_ptr<Opened> o(OpenOn(sys, "G:", false, false));
    EXPECT_EQ(o->status, 22) << answer;
    EXPECT_EQ(sys.err(), question);
    EXPECT_EQ(sys.open, 0);
    EXPECT_EQ(std::count(sys.calls.begin(), sys.calls.end(), "dismount"), 0);
  }
  {  // "y" and the rest of its line: dismount, wait, reopen, and the lock holds
    RecordedSystem sys(1 << 16, 512);
    sys.locks = {false, true};
    sys.input = "yes\nq";
    std::unique_ptr<Opened> o(OpenOn(sys, "G:", false, false));
    EXPECT_EQ(o->status, 0);
    EXPECT_EQ(sys.input, "q");
    EXPECT_EQ(sys.out(), dismounted);
    EXPECT_EQ(sys.calls, (std::vector<std::string>{"open \\\\.\\G:", "flush", "lock refused", "dismount", "close",
                                                   "sleep 2000", "open \\\\.\\G:", "flush", "lock", "extended"}));
  }
  {  // forced: no question; the third dismount gives up
    RecordedSystem sys(1 << 16, 512);
    sys.locks = {false};
    std::unique_ptr<Opened> o(OpenOn(sys, "G:", false, true));
    EXPECT_EQ(o->status, 22);
    EXPECT_EQ(sys.out(), dismounted + dismounted);
    EXPECT_EQ(std::count(sys.calls.begin(), sys.calls.end(), "dismount"), 3);
    EXPECT_EQ(sys.open, 0);
  }
  {  // a refused dismount
    RecordedSystem sys(1 << 16, 512);
    sys.locks = {false};
    sys.dismounts = {false};
    std::unique_ptr<Opened> o(OpenOn(sys, "G:", false, true));
    EXPECT_EQ(o->status, 22);
    EXPECT_EQ(sys.err(), "Can't lock volume \"G:\"\nCan't dismount volume \"G:\"\n");
  }
  {  // read-only: an unlocked volume is read as it is, silently
    RecordedSystem sys(1 << 16, 512);
    sys.locks = {false};
    std::unique_ptr<Opened> o(OpenOn(sys, "G:", true, false));
    EXPECT_EQ(o->status, 0);
    EXPECT_EQ(sys.err(), "");
    EXPECT_EQ(o->dev->WriteBytes(0, "x", 1, 0), ERR_WRITE_PROTECTED);
  }
}

TEST(WindowsVolume, UnalignedTransfersGoThroughAlignedBlocks) {
  RecordedSystem sys(3 * 4096 + 1024, 512);  // ends inside a 4096-byte block
  sys.aligned = true;
  std::unique_ptr<Opened> o(OpenOn(sys, "H:", false, true));
  ASSERT_EQ(o->status, 0);
  IDeviceRWBlock* dev = o->dev;
  const std::vector<uint8_t> before = sys.disk;
  std::vector<uint8_t> buf(9000);
  // Inside one block; across three; up to the device's end inside a block.
  const uint64_t end = sys.disk.size();
  for (auto [offset, count] : {std::pair<uint64_t, uint32_t>{10, 100}, {4095, 9000}, {end - 5000, 5000}}) {
    ASSERT_EQ(dev->ReadBytes(offset, buf.data(), count, 0), QORV_OK) << offset;
    EXPECT_EQ(std::memcmp(buf.data(), before.data() + offset, count), 0) << offset;
  }
  EXPECT_EQ(dev->ReadBytes(sys.disk.size() - 99, buf.data(), 100, 0), ERR_IO_RANGE);
  EXPECT_EQ(dev->ReadBytes(sys.disk.size() - 100, nullptr, 100, READ_VERIFY), QORV_OK);

  // Writes: an unaligned range is read, changed and written back by blocks;
  // zero fills the same way; nothing outside the range changes.
  std::vector<uint8_t> want = before;
  std::vector<uint8_t> data(5000, 0xAB);
  ASSERT_EQ(dev->WriteBytes(3000, data.data(), 5000, 0), QORV_OK);
  std::fill(want.begin() + 3000, want.begin() + 8000, 0xAB);
  ASSERT_EQ(dev->WriteBytes(sys.disk.size() - 700, nullptr, 600, WRITE_ZEROS), QORV_OK);
  std::fill(want.end() - 700, want.end() - 100, 0);
  EXPECT_EQ(sys.disk, want);
  EXPECT_EQ(sys.err(), "");
}

TEST(WindowsVolume, FailedReadsAndAVanishedDevice) {
  RecordedSystem sys(1 << 16, 512);
  sys.aligned = true;
  std::unique_ptr<Opened> o(OpenOn(sys, "K:", false, true));
  ASSERT_EQ(o->status, 0);
  uint8_t buf[512];
  sys.failReadsAt = 1;  // the unaligned read fails, then its aligned piece
  EXPECT_EQ(o->dev->ReadBytes(10, buf, 100, 0), status_t(EIO));
  std::string err = sys.err();
  EXPECT_EQ(err.find("\"\\\\.\\K:\": error reading 0x1000 bytes at offset 0x0, in buffer "), 0u) << err;
  EXPECT_NE(err.find(", pread64=-1, error=" + std::to_string(EIO) + "," + std::strerror(EIO) + "\n"),
            std::string::npos);
  sys.readable = false;
  sys.failReadsAt = 1;
  EXPECT_EQ(o->dev->ReadBytes(10, buf, 100, 0), ERR_DEVICE_GONE);
  EXPECT_EQ(o->dev->ReadBytes(0, buf, 512, 0), ERR_DEVICE_GONE);  // at once, without reading
  EXPECT_EQ(o->dev->WriteBytes(0, buf, 512, 0), ERR_DEVICE_GONE);
}
