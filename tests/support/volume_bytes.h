// Whole volumes held in memory for damaged copies, and the byte-order
// helpers tests use to damage them.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tests/support/cli.h"

namespace testsupport {

// A pre-built volume of tests/data, unpacked once; empty when zstd is missing.
inline const std::vector<uint8_t>& DataVolume(const std::string& name) {
  static std::map<std::string, std::vector<uint8_t>> cache;
  std::vector<uint8_t>& bytes = cache[name];
  if (bytes.empty()) {
    TempDir dir;
    std::string path = dir / (name + ".img");
    std::string src = std::string(MDSNAP_SOURCE_DIR) + "/tests/data/" + name + ".img.zst";
    if (std::system(("zstd -q -d -f -o '" + path + "' '" + src + "' 2>/dev/null").c_str()) == 0) {
      std::string s = ReadFile(path);
      bytes.assign(s.begin(), s.end());
    }
  }
  return bytes;
}

// The same volume written into dir, for tests that need a path; empty when
// it cannot be unpacked.
inline std::string DataVolumeFile(const TempDir& dir, const std::string& name) {
  const std::vector<uint8_t>& bytes = DataVolume(name);
  if (bytes.empty()) return "";
  WriteFile(dir / (name + ".img"), std::string(bytes.begin(), bytes.end()));
  return dir / (name + ".img");
}

// A shared sample volume's bytes; empty when it or zstd is missing.
inline std::vector<uint8_t> FixtureBytes(const std::string& relative) {
  TempDir dir;
  std::string path = Fixture(dir, relative);
  if (path.empty()) return {};
  std::string s = ReadFile(path);
  return std::vector<uint8_t>(s.begin(), s.end());
}

inline uint64_t Le(const std::vector<uint8_t>& b, size_t at, int n) {
  uint64_t v = 0;
  for (int i = n; i-- > 0;) v = (v << 8) | b[at + i];
  return v;
}
inline void PutLe(std::vector<uint8_t>& b, size_t at, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) b[at + i] = uint8_t(v >> (8 * i));
}
inline void PutBe(std::vector<uint8_t>& b, size_t at, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) b[at + i] = uint8_t(v >> (8 * (n - 1 - i)));
}

}  // namespace testsupport
