// The command line: the options record, its parser and the fixed texts.
#pragma once
#include <cstdint>
#include <string>

namespace mdsnap {

// Mode flags: switches of the tool itself.
constexpr uint32_t MODE_CREATE = 0x1;       // "-c"
constexpr uint32_t MODE_INFO = 0x2;         // "-info"
constexpr uint32_t MODE_NO_PERCENTS = 0x4;  // "--nopercents"
constexpr uint32_t MODE_SILENT = 0x8;       // "--silent"
constexpr uint32_t MODE_VERBOSE = 0x10;     // "--verbose"
constexpr uint32_t MODE_RAW = 0x20;         // "-dd"

constexpr int32_t DIRECTION_AUTO = 0;
constexpr int32_t DIRECTION_DUMP = 1;
constexpr int32_t DIRECTION_RESTORE = 2;

struct Options {
  uint32_t fsMask = 0xFFFFFFFF;
  uint32_t scanFlags = 0;
  uint32_t blockSize = 0;
  uint32_t modeFlags = 0;
  const char* imagePath = nullptr;
  int32_t direction = DIRECTION_AUTO;
  bool trace = false;
};

enum class ParseResult { Ok, Failed, ShowVersion, ShowLibraryVersion };

// Parses argv[1..argc-1]. On an argument error prints "Error in argument" to
// stderr and returns Failed. `device` receives the one positional argument.
ParseResult ParseCommandLine(int argc, char** argv, Options* opt, const char** device);

// "-b:" number rule: digits with an optional K/M suffix; anything else is 0.
uint32_t ParseBlockSize(const char* text);

void PrintUsage();
void PrintVersionBanner();
// Library version text with the components compiled in, no trailing newline.
std::string LibraryVersionText();

}  // namespace mdsnap
