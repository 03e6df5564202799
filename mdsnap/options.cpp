#include "mdsnap/options.h"

#include <cstdio>
#include <cstring>

#include "core/api/scanner.h"

namespace mdsnap {

uint32_t ParseBlockSize(const char* text) {
  uint64_t v = 0;
  for (const char* p = text; *p; ++p) {
    if (*p >= '0' && *p <= '9') {
      v = v * 10 + uint64_t(*p - '0');
      if (v > 0xFFFFFFFFull) return 0;
    } else if (*p == 'K' || *p == 'k') {
      v <<= 10;
      break;
    } else if (*p == 'M' || *p == 'm') {
      v <<= 20;
      break;
    } else {
      return 0;
    }
  }
  return v > 0xFFFFFFFFull ? 0 : uint32_t(v);
}

static bool FsMaskFromName(const char* name, uint32_t* mask) {
  static const struct {
    const char* name;
    uint32_t mask;
  } kNames[] = {
      {"ntfs", api::FS_NTFS}, {"hfs", api::FS_HFS}, {"exfat", api::FS_EXFAT},
      {"fat", api::FS_FAT},   {"ext", api::FS_EXT}, {"refs", api::FS_REFS3_NEW | api::FS_REFS1},
      {"apfs", api::FS_APFS}, {"btrfs", api::FS_BTRFS},
  };
  for (const auto& n : kNames)
    if (std::strcmp(n.name, name) == 0) {
      *mask = n.mask;
      return true;
    }
  return false;
}

static ParseResult ArgumentError(const char* arg) {
  std::fprintf(stderr, "Error in argument: \"%s\"\n", arg);
  return ParseResult::Failed;
}

ParseResult ParseCommandLine(int argc, char** argv, Options* opt, const char** device) {
  *device = nullptr;
  if (argc < 2) return ParseResult::Failed;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    auto is = [a](const char* s) { return std::strcmp(a, s) == 0; };
    auto prefixed = [a](const char* p) { return std::strncmp(a, p, std::strlen(p)) == 0; };
    if (is("--version")) return ParseResult::ShowVersion;
    if (is("--qorvversion")) return ParseResult::ShowLibraryVersion;
    if (prefixed("-fs:")) {
      if (!FsMaskFromName(a + 4, &opt->fsMask)) return ArgumentError(a);
    } else if (is("-c")) {
      opt->modeFlags |= MODE_CREATE;
    } else if (is("-info")) {
      opt->modeFlags |= MODE_INFO;
    } else if (is("-data")) {
      opt->scanFlags |= api::SCAN_DATA;
    } else if (is("-fork")) {
      opt->scanFlags |= api::SCAN_FORK;
    } else if (is("-nojnl")) {
      opt->scanFlags |= api::SCAN_NO_JOURNAL;
    } else if (is("--trace")) {
      opt->trace = true;
    } else if (is("--head")) {
      opt->scanFlags |= api::SCAN_HEAD_ONLY;
    } else if (is("--verbose")) {
      opt->modeFlags |= MODE_VERBOSE;
    } else if (is("--dump")) {
      opt->direction = DIRECTION_DUMP;
    } else if (is("--restore")) {
      opt->direction = DIRECTION_RESTORE;
    } else if (prefixed("-f:")) {
      opt->imagePath = a + 3;
    } else if (is("--help") || is("-h")) {
      return ParseResult::Failed;
    } else if (is("--nopercents")) {
      opt->modeFlags |= MODE_NO_PERCENTS;
    } else if (is("--silent")) {
      opt->modeFlags |= MODE_SILENT;
    } else if (prefixed("-b:")) {
      uint32_t v = ParseBlockSize(a + 3);
      if (v == 0 || (v & (v - 1)) != 0 || v > 4096) return ArgumentError(a);
      opt->blockSize = v;
    } else if (is("-dd")) {
      opt->modeFlags |= MODE_RAW;
    } else if (*device == nullptr) {
      *device = a;
    } else {
      return ArgumentError(a);
    }
  }
  return ParseResult::Ok;
}

void PrintUsage() {
  std::fputs("Dump/Restore NTFS/HFS+/ExFAT/FAT/Ext/ReFS/APFS volumes (metadata only)\n", stdout);
  std::fputs(
      "Usage: mdsnap [options] device\n"
      "  -fs:ntfs        force to treat volume as ntfs.\n"
      "  -fs:hfs         force to treat volume as hfs+/hfsj.\n"
      "  -fs:exfat       force to treat volume as exfat/texfat.\n"
      "  -fs:fat         force to treat volume as fat16/fat32.\n"
      "  -fs:ext         force to treat volume as ext2/ext3/ext4.\n"
      "  -fs:refs        force to treat volume as refs.\n"
      "  -fs:apfs        force to treat volume as apfs.\n"
      "  -fs:btrfs       force to treat volume as btrfs.\n"
      "  -c              create or resize output file (only for restoring to a regular file)\n"
      "  -info           display info about image\n"
      "  -data           include file's content (dump ntfs/hfs/apfs/refs3 metadata + user's data)\n"
      "  -fork           include file's content (dump hfs metadata + forks)\n"
      "  -b:size         override the default block (sector) size. Default settings\n"
      "                  are strongly recommended for general use.\n"
      "                  one can use 512, 1024, 2048, 4096.\n"
      "  -f:/path/file   image file to dump to or restore from\n"
      "  -dd             ignore fs and dump volume 1:1\n"
      "  -h              display this help\n"
      "  --help          display this help\n"
      "  --trace         turn on QORV trace\n"
      "  --head          force to dump header and tail of volume\n"
      "  --nopercents    do not print percents\n"
      "  --silent        do not print anything\n"
      "  --dump          force to dump\n"
      "  --restore       force to restore\n"
      "  --version       show version and exit\n"
      "  --qorvversion   show qorv version and exit\n",
      stdout);
  std::fputs("E.g. mdsnap g: > dump\nE.g. mdsnap \\\\?\\Volume{d7c5ce70-3220-11db-b0fb-005056c00008} < dump\n", stdout);
}

// The release number comes from the build (project() in CMakeLists.txt).
#ifndef MDSNAP_VERSION
#define MDSNAP_VERSION "unreleased"
#endif

void PrintVersionBanner() {
  std::printf("mdsnap (%s %s)\nQORV\nmdsnap %s, by the mdsnap developers\n\n", __DATE__, __TIME__, MDSNAP_VERSION);
}

std::string LibraryVersionText() {
  // Components in their fixed order; only those built into this binary are listed.
  static const struct {
    const char* text;
    bool included;
  } kComponents[] = {
      {"NTFSJ support included", true},      {"Mdsnap Ntfs included", true},
      {"Mdsnap Ext included", true},         {"FAT support included", true},
      {"Mdsnap Fat included", true},         {"BTRFS support included", true},
      {"APFS support included", true},       {"Mdsnap Apfs included", true},
      {"exFAT support included", true},      {"Mdsnap Exfat included", true},
      {"Hfs+J support included", true},      {"Mdsnap Hfs included", true},
      {"ReFs 1.x support included", false},  {"Mdsnap ReFs 1.x included", false},
      {"ReFs 3.4- support included", false}, {"Mdsnap ReFs 3.5- included", false},
      {"ReFs 3.5+ support included", false}, {"Mdsnap ReFs 3.6+ included", false},
  };
  std::string text = std::string("QORV version 12.00 (") + __DATE__ + ", " + __TIME__ + ")";
  for (const auto& c : kComponents)
    if (c.included) text += std::string("\n") + c.text;
  return text;
}

}  // namespace mdsnap
