#include "mdsnap/options.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

using namespace mdsnap;

namespace {

struct Parsed {
  ParseResult result;
  Options opt;
  const char* device = nullptr;
  std::string err;
};

Parsed Parse(std::initializer_list<const char*> args) {
  std::vector<char*> argv{const_cast<char*>("mdsnap")};
  for (const char* a : args) argv.push_back(const_cast<char*>(a));
  Parsed p;
  testing::internal::CaptureStderr();
  p.result = ParseCommandLine(int(argv.size()), argv.data(), &p.opt, &p.device);
  p.err = testing::internal::GetCapturedStderr();
  return p;
}

}  // namespace

TEST(Options, FileSystemMasks) {
  EXPECT_EQ(Parse({"x"}).opt.fsMask, 0xFFFFFFFFu);
  EXPECT_EQ(Parse({"-fs:fat", "x"}).opt.fsMask, 0x8u);
  EXPECT_EQ(Parse({"-fs:refs", "x"}).opt.fsMask, 0x5000u);
  EXPECT_EQ(Parse({"-fs:ntfs", "-fs:ext", "x"}).opt.fsMask, 0x40u);
  EXPECT_EQ(Parse({"-fs:apfs"}).opt.fsMask, 0x10000u);
  EXPECT_EQ(Parse({"-fs:btrfs"}).opt.fsMask, 0x8000u);
  Parsed bad = Parse({"-fs:FAT", "x"});
  EXPECT_EQ(bad.result, ParseResult::Failed);
  EXPECT_EQ(bad.err, "Error in argument: \"-fs:FAT\"\n");
}

TEST(Options, FlagsAndDirection) {
  Parsed p = Parse({"-c", "-info", "-data", "-fork", "-nojnl", "--head", "--verbose", "--nopercents", "--silent", "-dd",
                    "--restore", "-f:img", "dev"});
  ASSERT_EQ(p.result, ParseResult::Ok);
  EXPECT_EQ(p.opt.modeFlags, 0x3Fu);
  EXPECT_EQ(p.opt.scanFlags, 0xFu);
  EXPECT_EQ(p.opt.direction, DIRECTION_RESTORE);
  EXPECT_STREQ(p.opt.imagePath, "img");
  EXPECT_STREQ(p.device, "dev");
  EXPECT_EQ(Parse({"--restore", "--dump"}).opt.direction, DIRECTION_DUMP);
  EXPECT_STREQ(Parse({"-f:a", "-f:b"}).opt.imagePath, "b");
}

TEST(Options, BlockSizeRule) {
  EXPECT_EQ(ParseBlockSize("4k"), 4096u);
  EXPECT_EQ(ParseBlockSize("1M"), 1u << 20);
  EXPECT_EQ(ParseBlockSize("512"), 512u);
  EXPECT_EQ(ParseBlockSize("2kx"), 2048u);  // the suffix ends the number
  EXPECT_EQ(ParseBlockSize("12a"), 0u);
  EXPECT_EQ(ParseBlockSize("99999999999"), 0u);
  EXPECT_EQ(Parse({"-b:4k", "x"}).opt.blockSize, 4096u);
  EXPECT_EQ(Parse({"-b:256", "x"}).opt.blockSize, 256u);
  EXPECT_EQ(Parse({"-b:1", "x"}).opt.blockSize, 1u);
  for (const char* bad : {"-b:8192", "-b:3000", "-b:0", "-b:", "-b:1M"}) {
    Parsed p = Parse({bad, "x"});
    EXPECT_EQ(p.result, ParseResult::Failed) << bad;
    EXPECT_EQ(p.err, std::string("Error in argument: \"") + bad + "\"\n");
  }
}

TEST(Options, PositionalsHelpAndVersion) {
  Parsed two = Parse({"a", "b"});
  EXPECT_EQ(two.result, ParseResult::Failed);
  EXPECT_EQ(two.err, "Error in argument: \"b\"\n");
  Parsed none = Parse({});
  EXPECT_EQ(none.result, ParseResult::Failed);
  EXPECT_EQ(none.err, "");
  EXPECT_EQ(Parse({"--help", "x"}).result, ParseResult::Failed);
  EXPECT_EQ(Parse({"x", "-h"}).result, ParseResult::Failed);
  EXPECT_EQ(Parse({"--version", "-fs:bogus"}).result, ParseResult::ShowVersion);
  EXPECT_EQ(Parse({"--qorvversion"}).result, ParseResult::ShowLibraryVersion);
  // Comparisons are exact and case-sensitive: "-C" is a positional argument.
  EXPECT_STREQ(Parse({"-C"}).device, "-C");
}

TEST(Options, LibraryVersionListsBuiltInComponentsInOrder) {
  std::string text = LibraryVersionText();
  EXPECT_EQ(text.rfind("QORV version 12.00 (", 0), 0u);
  EXPECT_LT(text.find("Mdsnap Ext included"), text.find("FAT support included"));
  EXPECT_LT(text.find("FAT support included"), text.find("Mdsnap Fat included"));
  EXPECT_NE(text.back(), '\n');
}
