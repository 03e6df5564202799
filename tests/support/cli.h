// Runs the built mdsnap binary through the shell and captures what it did.
#pragma once
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace testsupport {

struct RunResult {
  int status = -1;  // the process exit status (low 8 bits of the run's status)
  std::string out, err;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << bytes;
}

inline bool HaveTool(const std::string& tool) {
  return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0;
}

// A scratch directory removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/mdsnap-test-XXXXXX";
    path_ = ::mkdtemp(tmpl) ? tmpl : "/tmp";
  }
  ~TempDir() {
    if (path_ != "/tmp") std::system(("rm -rf '" + path_ + "'").c_str());
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Runs `shell` (with MDSNAP standing for the binary) under bash; stdout and
// stderr are captured unless the command redirects them itself.
inline RunResult Sh(const TempDir& dir, const std::string& shell, const std::string& input = "/dev/null") {
  std::string cmd = shell;
  const std::string key = "MDSNAP";
  for (size_t at; (at = cmd.find(key)) != std::string::npos;) cmd.replace(at, key.size(), MDSNAP_BIN);
  std::string outPath = dir / ".out", errPath = dir / ".err", script = dir / ".cmd";
  WriteFile(script, "cd '" + dir.path() + "' || exit 99\n" + cmd + "\n");
  std::string full = "bash '" + script + "' <" + input + " >'" + outPath + "' 2>'" + errPath + "'";
  int raw = std::system(full.c_str());
  RunResult r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = ReadFile(outPath);
  r.err = ReadFile(errPath);
  return r;
}

inline uint64_t FileSize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? uint64_t(st.st_size) : 0;
}

// Decompresses a shared sample volume into dir; empty string when absent.
inline std::string Fixture(const TempDir& dir, const std::string& relative) {
  std::string src = std::string(MDSNAP_FIXTURES_DIR) + "/" + relative;
  if (::access(src.c_str(), R_OK) != 0 || !HaveTool("zstd")) return "";
  std::string name = relative.substr(relative.rfind('/') + 1);
  name = name.substr(0, name.size() - 4);  // drop ".zst"
  std::string dst = dir / name;
  if (std::system(("zstd -q -d -f -o '" + dst + "' '" + src + "'").c_str()) != 0) return "";
  return dst;
}

}  // namespace testsupport
