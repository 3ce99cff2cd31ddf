#include "tests/support/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "pelorus.h"

namespace plr::test {
namespace {

bool Fail(const char* what, const std::string& detail = "") {
  fprintf(stderr, "sandbox: %s %s: %s\n", what, detail.c_str(), strerror(errno));
  return false;
}

bool MountTmpfs(const char* target, const char* options = "mode=0755") {
  if (mount("tmpfs", target, "tmpfs", MS_NOSUID, options) != 0) return Fail("tmpfs on", target);
  return true;
}

bool MkdirP(const std::string& path) {
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    const std::string partial = path.substr(0, at);
    if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return Fail("mkdir", partial);
    if (at == std::string::npos) return true;
  }
}

// Binds `dir` back over a freshly covered parent, from a descriptor opened
// while it was still visible.
bool BindBack(int fd, const std::string& dir) {
  if (!MkdirP(dir)) return false;
  std::string source = "/proc/self/fd/" + std::to_string(fd);
  if (mount(source.c_str(), dir.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
    return Fail("bind back", dir);
  return true;
}

bool CoverTmp() {
  std::vector<std::pair<int, std::string>> keep;
  for (const char* dir : {SourceDir(), BinaryDir()}) {
    if (strncmp(dir, "/tmp/", 5) != 0) continue;
    int fd = open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return Fail("open", dir);
    keep.emplace_back(fd, dir);
  }
  if (!MountTmpfs("/tmp", "mode=1777")) return false;
  for (auto& [fd, dir] : keep) {
    if (!BindBack(fd, dir)) return false;
    close(fd);
  }
  return true;
}

// /etc stays readable (dhcpd and the shell need it) but writes land in a
// tmpfs upper layer; /etc/tarsis then gets a tmpfs of its own.
bool CoverEtc() {
  if (!MkdirP("/run/plr-etc") || !MountTmpfs("/run/plr-etc")) return false;
  if (!MkdirP("/run/plr-etc/upper") || !MkdirP("/run/plr-etc/work")) return false;
  const char* options = "lowerdir=/etc,upperdir=/run/plr-etc/upper,workdir=/run/plr-etc/work";
  if (mount("overlay", "/etc", "overlay", 0, options) != 0) return Fail("overlay on", "/etc");
  if (!MkdirP("/etc/tarsis")) return false;
  return MountTmpfs("/etc/tarsis");
}

bool CoverDev() {
  if (!MountTmpfs("/dev")) return false;
  struct Node {
    const char* path;
    unsigned major, minor;
  };
  const Node nodes[] = {{"/dev/null", 1, 3},      {"/dev/zero", 1, 5},    {"/dev/full", 1, 7},
                        {"/dev/random", 1, 8},    {"/dev/urandom", 1, 9}, {"/dev/tty", 5, 0},
                        {"/dev/net/tun", 10, 200}};
  if (!MkdirP("/dev/net") || !MkdirP("/dev/pts") || !MkdirP("/dev/shm")) return false;
  for (const Node& n : nodes)
    if (mknod(n.path, S_IFCHR | 0666, makedev(n.major, n.minor)) != 0) return Fail("mknod", n.path);
  if (!MountTmpfs("/dev/shm", "mode=1777")) return false;
  symlink("/proc/self/fd", "/dev/fd");
  symlink("/proc/self/fd/0", "/dev/stdin");
  symlink("/proc/self/fd/1", "/dev/stdout");
  symlink("/proc/self/fd/2", "/dev/stderr");
  return true;
}

bool LoopbackUp() {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Fail("socket", "");
  struct ifreq ifr = {};
  strcpy(ifr.ifr_name, "lo");
  bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
  ifr.ifr_flags |= IFF_UP;
  ok = ok && ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
  close(fd);
  return ok || Fail("bring up", "lo");
}

}  // namespace

bool EnterSandbox() {
  if (geteuid() != 0) {
    fprintf(stderr, "sandbox: the test suite must run as root (it needs private namespaces)\n");
    return false;
  }
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return Fail("unshare", "");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Fail("make private", "/");
  // /run first: /var/run points into it, and the /etc overlay keeps its upper layer there.
  return MountTmpfs("/run") && CoverEtc() && MountTmpfs("/var/log") && CoverTmp() && CoverDev() &&
         LoopbackUp();
}

void KillStragglers() {
  struct stat self;
  if (stat("/proc/self/ns/net", &self) != 0) return;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return;
  while (struct dirent* entry = readdir(proc)) {
    char* end;
    long pid = strtol(entry->d_name, &end, 10);
    if (*end != '\0' || pid <= 1 || pid == getpid()) continue;
    struct stat ns;
    std::string path = std::string("/proc/") + entry->d_name + "/ns/net";
    if (stat(path.c_str(), &ns) == 0 && ns.st_ino == self.st_ino && ns.st_dev == self.st_dev)
      kill(static_cast<pid_t>(pid), SIGKILL);
  }
  closedir(proc);
}

const char* SourceDir() {
  return PLR_TEST_SOURCE_DIR;
}
const char* BinaryDir() {
  return PLR_TEST_BINARY_DIR;
}
const char* FixtureBinDir() {
  return PLR_TEST_FIXTURE_BINDIR;
}
const char* TestDataDir() {
  return PLR_TEST_SOURCE_DIR "/tests/data";
}

void WriteFile(const std::string& path, const std::string& text, int mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size())) << path;
  close(fd);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

bool FileExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

void WriteProductConfig() {
  WriteFile("/etc/tarsis/config", std::string("bindir = \"") + FixtureBinDir() + "\"\n");
}

void WriteDatabase(const std::string& records) {
  WriteFile(kDatabasePath, "VERSION=1,0\n" + records);
}

int Run(const std::string& command) {
  int status = system(command.c_str());
  if (status == -1 || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

std::string Capture(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

std::string LogText() {
  return FileExists(kLogPath) ? ReadFile(kLogPath) : "";
}

bool LogHas(const std::string& text) {
  return LogText().find(text) != std::string::npos;
}

size_t LogCount(const std::string& text) {
  const std::string log = LogText();
  size_t n = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
  return n;
}

void LogWhileUnloaded() {
  ASSERT_EQ(plrContext.loadCount, 0u);
  FILE* stream = fopen(kLogPath, "ab+e");
  ASSERT_NE(stream, nullptr) << kLogPath << ": " << strerror(errno);
  if (plrContext.logStream != nullptr) fclose(plrContext.logStream);
  plrContext.logStream = stream;
  plrContext.currentLevel = PLR_LOG_MAX_LEVEL;
}

bool ProcessAlive(pid_t pid) {
  if (pid <= 0) return false;
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  std::getline(in, stat);
  size_t paren = stat.rfind(')');
  if (paren == std::string::npos || paren + 2 >= stat.size()) return false;
  return stat[paren + 2] != 'Z' && stat[paren + 2] != 'X';
}

void SleepMs(unsigned ms) {
  struct timespec ts = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  nanosleep(&ts, nullptr);
}

uint64_t NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

std::set<int> OpenFds() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  while (dirent* e = readdir(dir))
    if (e->d_name[0] != '.' && atoi(e->d_name) != dirfd(dir)) fds.insert(atoi(e->d_name));
  closedir(dir);
  return fds;
}

}  // namespace plr::test
