#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/message.h"
#include "platform/platform.h"
#include "tests/support/cli.h"

using namespace api;
using testsupport::TempDir;

namespace {

// Runs body with a sink writing to a memory stream; returns what it wrote.
template <typename F>
std::string Capture(bool noPercents, F body) {
  FILE* f = std::tmpfile();
  CQORV_Message sink;
  sink.Configure(f, nullptr, noPercents);
  body(sink);
  std::string out;
  std::rewind(f);
  for (int c; (c = std::fgetc(f)) != EOF;) out.push_back(char(c));
  std::fclose(f);
  return out;
}

}  // namespace

TEST(Message, PercentLineOnlyWhenTheWholePercentChanges) {
  std::string out = Capture(false, [](CQORV_Message& m) {
    uint64_t total = 1000, pos;
    m.SetTotal(0, &total, nullptr);
    for (pos = 0; pos <= 30; pos += 3) m.SetPosition(&pos);
    pos = 5000;  // beyond the total
    m.SetPosition(&pos);
    EXPECT_EQ(m.GetPercent(), 100u);
  });
  EXPECT_EQ(out, "0%1% 2% 3% 100%");  // off a terminal: no carriage returns, pads to the last width
  std::string zero = Capture(false, [](CQORV_Message& m) {
    uint64_t total = 0, pos = 7;
    m.SetTotal(0, &total, nullptr);
    m.SetPosition(&pos);
  });
  EXPECT_EQ(zero, "0%");
  // Positions whose product with 100 passes 64 bits still truncate exactly.
  CQORV_Message big;
  big.Configure(nullptr, nullptr, true);
  const uint64_t max = UINT64_MAX;
  for (auto [position, percent] : {std::pair<uint64_t, uint32_t>{max / 2, 49}, {max - 1, 99}, {max / 100 * 37, 36}}) {
    big.SetTotal(0, &max, nullptr);
    big.SetPosition(&position);
    EXPECT_EQ(big.GetPercent(), percent) << position;
  }
  uint64_t half = uint64_t(1) << 62, total = uint64_t(1) << 63;
  big.SetTotal(0, &total, nullptr);
  big.SetPosition(&half);
  EXPECT_EQ(big.GetPercent(), 50u);
  EXPECT_EQ(Capture(true, [](CQORV_Message& m) {
              uint64_t t = 10, p = 5;
              m.SetTotal(0, &t, nullptr);
              m.SetPosition(&p);
            }),
            "");
}

TEST(Message, LinesLevelsAndTheLongStatusLine) {
  std::string out = Capture(false, [](CQORV_Message& m) {
    m.Trace(1, "Scanning %s...\n", "FAT");
    m.Trace(-1, "never");
    uint64_t t = 100, p = 37;
    m.SetTotal(0, &t, nullptr);
    m.SetPosition(&p);
    m.Trace(2, "%s", std::string(60, 'a').append(60, 'b').c_str());
  });
  std::string want = "Scanning FAT...\n37%" "37% " + std::string(50, 'a') + "..." +
                     std::string(22, 'b');
  EXPECT_EQ(out, want);
  // A short level-2 line becomes the label behind later percents.
  std::string label = Capture(false, [](CQORV_Message& m) {
    uint64_t t = 100, p = 1;
    m.SetTotal(0, &t, nullptr);
    m.Trace(2, "dir /a");
    m.SetPosition(&p);
  });
  EXPECT_EQ(label, "dir /a1% dir /a");
}

// A silent sink answers OK without asking; a console one reads whole lines.
TEST(Message, PromptsReadLineBufferedAnswers) {
  CQORV_Message silent;
  silent.Configure(nullptr, nullptr, false);
  EXPECT_EQ(silent.Ask(ASK_YES_NO, "Really?"), ANSWER_OK);
  EXPECT_EQ(silent.Trace(1, "x"), 0);
  TempDir dir;
  auto ask = [&](const std::string& input, int kind) {
    testsupport::WriteFile(dir / "in", input);
    int saved = dup(0);
    FILE* in = std::freopen((dir / "in").c_str(), "r", stdin);
    EXPECT_NE(in, nullptr);
    int answer = 0;
    std::string out = Capture(false, [&](CQORV_Message& m) { answer = m.Ask(kind, "Go on?\n"); });
    dup2(saved, 0);
    close(saved);
    clearerr(stdin);
    return std::make_pair(answer, out);
  };
  auto n = ask("n\n", ASK_YES_NO);
  EXPECT_EQ(n.first, ANSWER_NO);
  EXPECT_EQ(n.second, "Go on?\n(Y)es|(N)o ");
  auto x = ask("x\ny\n", ASK_YES_NO);
  EXPECT_EQ(x.first, ANSWER_YES);
  EXPECT_EQ(x.second, "Go on?\n(Y)es|(N)o (Y)es|(N)o (Y)es|(N)o ");
  EXPECT_EQ(ask("r", ASK_ABORT_RETRY_IGNORE).first, ANSWER_RETRY);
  EXPECT_EQ(ask("", ASK_YES_NO_CANCEL).first, ANSWER_CANCEL);  // end of input never hangs
  EXPECT_EQ(ask("q", ASK_ANY_KEY).first, ANSWER_OK);
}

TEST(Message, TraceLogNames) {
  EXPECT_EQ(TraceLogName("/opt/tools/mdsnap.exe", "mdsnap"), "/opt/tools/mdsnap.log");
  EXPECT_EQ(TraceLogName("/usr/bin/mdsnap", "mdsnap"), "/usr/bin/mdsnap.log");
  EXPECT_EQ(TraceLogName("/home/a.b/mdsnap", "mdsnap"), "/home/a.b/mdsnap.log");
  EXPECT_EQ(TraceLogName(nullptr, "mdsnap"), "./mdsnap.log");
}

TEST(Strings, Utf8AndCompareRules) {
  IBaseStringManager* s = GetStringManager();
  IBaseMemoryManager* m = GetMemoryManager();
  EXPECT_EQ(m->Compare("ab", "ac", 2), -1);
  EXPECT_EQ(m->Compare("b", "a", 1), 1);
  uint16_t out[8] = {};
  size_t n = 99;
  const uint8_t overlong[] = {0xC0, 0x80, 'A', 0};
  s->Convert(STR_UTF8, overlong, -1, STR_UTF16, out, 8, &n);
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(out[0], 'A');
  const uint8_t emoji[] = {0xF0, 0x9F, 0x98, 0x80, 0};
  s->Convert(STR_UTF8, emoji, -1, STR_UTF16, out, 8, &n);
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(out[0], 0xF600);
  const uint8_t e[] = {0xC3, 0xA9, 'x', 0};  // "éx"
  out[2] = 0x7777;
  s->Convert(STR_UTF8, e, -1, STR_UTF16, out, 2, &n);
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(out[0], 0xE9);
  EXPECT_EQ(out[2], 0x7777);  // capacity == length: no terminator
  const uint16_t wide[] = {0x65E5, 'a', 0};
  char bytes[8] = {};
  s->Convert(STR_UTF16, wide, -1, STR_UTF8, bytes, 8, &n);
  EXPECT_EQ(n, 4u);
  EXPECT_STREQ(bytes, "\xE6\x97\xA5" "a");
  s->Convert(STR_UTF8, "abc", -1, STR_UTF8 | STR_UPPERCASE, bytes, 8, &n);
  EXPECT_STREQ(bytes, "ABC");
  EXPECT_EQ(s->Length(3, "abc"), 0u);
  EXPECT_EQ(s->Length(STR_UTF8, "abc"), 3u);
  EXPECT_LT(s->CompareNoCase(STR_UTF8, "abc", "ABD"), 0);
  EXPECT_EQ(s->CompareNoCase(STR_UTF8, "abc", "ABC"), 0);
  EXPECT_TRUE(IsEmpty(STR_UTF8, ""));
  EXPECT_TRUE(IsEmpty(7, "x"));
  EXPECT_EQ(UnitSize(STR_UTF16), 2u);
  // 2020-01-01 is 132223104000000000 in 100-ns units since 1601.
  EXPECT_GT(GetTime()->GetSystemTime(), 132223104000000000LL);
}

TEST(Device, RegularFileRulesAndMessages) {
  TempDir dir;
  std::string path = dir / "vol.img";
  std::string bytes(3 * 4096 + 100, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = char(i * 13);
  testsupport::WriteFile(path, bytes);
  IDeviceRWBlock* dev = nullptr;
  int fd = -1;
  testing::internal::CaptureStderr();
  ASSERT_EQ(CreateVolumeDevice(path.c_str(), false, false, &dev, &fd, true, 0, 0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Can't get sector size of \"" + path + "\". Use default 512 bytes\n");
  EXPECT_GE(fd, 0);
  EXPECT_EQ(dev->GetSectorSize(), 512u);
  EXPECT_EQ(dev->GetSize(), bytes.size());
  char buf[200];
  EXPECT_EQ(dev->ReadBytes(10, buf, 100, 0), QORV_OK);
  EXPECT_EQ(std::memcmp(buf, bytes.data() + 10, 100), 0);
  EXPECT_EQ(dev->ReadBytes(bytes.size() - 99, buf, 100, 0), ERR_IO_RANGE);
  EXPECT_EQ(dev->ReadBytes(bytes.size() - 100, nullptr, 100, READ_NO_DATA), QORV_OK);
  EXPECT_EQ(dev->ReadBytes(0, nullptr, 4096, READ_VERIFY), QORV_OK);
  EXPECT_EQ(dev->WriteBytes(4000, nullptr, 200, WRITE_ZEROS), QORV_OK);
  EXPECT_EQ(dev->WriteBytes(5, "xyz", 3, 0), QORV_OK);
  uint64_t zero = 0, one = 1;
  EXPECT_EQ(dev->SetSize(0, &zero), QORV_OK);
  EXPECT_EQ(dev->SetSize(0, &one), ERR_NOT_SUPPORTED);
  MakeReadOnly(dev);
  EXPECT_TRUE(dev->IsReadOnly());
  EXPECT_EQ(dev->WriteBytes(0, "a", 1, 0), ERR_WRITE_PROTECTED);
  EXPECT_EQ(dev->SetSize(0, &zero), ERR_WRITE_PROTECTED);
  delete dev;
  std::string after = testsupport::ReadFile(path);
  EXPECT_EQ(after.substr(5, 3), "xyz");
  EXPECT_EQ(after.substr(4000, 200), std::string(200, '\0'));
  EXPECT_EQ(after[3999], bytes[3999]);
  EXPECT_EQ(after[4200], bytes[4200]);

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  ASSERT_EQ(CreateVolumeDevice(path.c_str(), true, true, &dev, nullptr, false, 0, 4096), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), path + ": force to use sector size 0x1000\n");
  EXPECT_EQ(dev->GetSectorSize(), 4096u);
  delete dev;
}

TEST(Device, LoopDeviceLockAndSectorSize) {
  if (geteuid() != 0 || !testsupport::HaveTool("losetup")) GTEST_SKIP() << "needs root and losetup";
  TempDir dir;
  std::string img = dir / "loop.img";
  testsupport::WriteFile(img, std::string(1 << 20, '\x5a'));
  FILE* p = popen(("losetup -f --show -b 4096 '" + img + "' 2>/dev/null").c_str(), "r");
  char name[64] = {};
  bool got = p && std::fgets(name, sizeof name, p);
  if (p) pclose(p);
  if (!got) GTEST_SKIP() << "no free loop device";
  std::string loop(name, std::strcspn(name, "\n"));
  IDeviceRWBlock* dev = nullptr;
  ASSERT_EQ(CreateVolumeDevice(loop.c_str(), false, false, &dev, nullptr, true, 0, 0), 0);
  EXPECT_EQ(dev->GetSectorSize(), 4096u);
  EXPECT_EQ(dev->GetSize(), 1u << 20);
  // Held exclusively: a second writable open cannot lock and cannot dismount.
  IDeviceRWBlock* second = nullptr;
  testing::internal::CaptureStderr();
  EXPECT_EQ(CreateVolumeDevice(loop.c_str(), false, false, &second, nullptr, true, 0, 0), 22);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Can't lock volume \"" + loop + "\"\nCan't dismount volume \"" + loop + "\"\n");
  // A read-only open goes on unlocked.
  ASSERT_EQ(CreateVolumeDevice(loop.c_str(), true, false, &second, nullptr, false, 0, 0), 0);
  delete second;
  delete dev;
  std::system(("losetup -d " + loop).c_str());
}
