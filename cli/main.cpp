// pelorus: the command an administrator runs to see and change the host's
// virtual networks. Every command loads the library once and unloads it.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <string>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/session.h"

namespace pelorus_cli {
namespace {

// mkdir -p; false with errno set.
bool MakeDirs(const std::string& path) {
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    const std::string part = path.substr(0, at);
    if (!part.empty() && mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (at == std::string::npos) return true;
  }
}

bool WriteProcFile(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

// Moves this process into a private mount and network namespace whose
// /etc/tarsis, /run (and so /var/run) and /var/log are folders under `dir`,
// created on first use. A user other than root gets a user namespace of its
// own, where the kernel allows one.
void EnterSandbox(const std::string& given) {
  char resolved[PATH_MAX];
  if (!MakeDirs(given) || realpath(given.c_str(), resolved) == nullptr)
    throw CommandError(kExitFailed, "cannot use " + given + " as sandbox: " + strerror(errno));
  const std::string dir = resolved;
  for (const char* sub : {"/tarsis", "/run", "/log", "/.etc/upper", "/.etc/work"})
    if (!MakeDirs(dir + sub))
      throw CommandError(kExitFailed, "cannot create " + dir + sub + ": " + strerror(errno));
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  int flags = CLONE_NEWNS | CLONE_NEWNET;
  if (uid != 0) flags |= CLONE_NEWUSER;
  if (unshare(flags) != 0)
    throw CommandError(kExitFailed, std::string("cannot enter the sandbox: ") + strerror(errno) +
                                        (uid != 0 ? " (unprivileged user namespaces are not "
                                                    "available here; run as root)"
                                                  : ""));
  if (uid != 0 && (!WriteProcFile("/proc/self/setgroups", "deny") ||
                   !WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
                   !WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")))
    throw CommandError(kExitFailed, std::string("cannot map the user: ") + strerror(errno));
  auto bind = [&](const std::string& from, const char* to) {
    if (mount(from.c_str(), to, nullptr, MS_BIND | MS_REC, nullptr) != 0)
      throw CommandError(kExitFailed,
                         "cannot mount " + from + " on " + to + ": " + strerror(errno));
  };
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    throw CommandError(kExitFailed, std::string("cannot make mounts private: ") + strerror(errno));
  // /etc gets a writable layer in the sandbox so /etc/tarsis can exist there.
  const std::string options =
      "lowerdir=/etc,upperdir=" + dir + "/.etc/upper,workdir=" + dir + "/.etc/work";
  if (mount("overlay", "/etc", "overlay", 0, options.c_str()) != 0)
    throw CommandError(kExitFailed, std::string("cannot overlay /etc: ") + strerror(errno));
  mkdir("/etc/tarsis", 0755);
  bind(dir + "/tarsis", "/etc/tarsis");
  bind(dir + "/run", "/run");
  bind(dir + "/log", "/var/log");
}

}  // namespace
}  // namespace pelorus_cli

int main(int argc, char** argv) {
  using namespace pelorus_cli;
  CLI::App app("pelorus: the host's virtual networks (kavix0 to kavix255)", "pelorus");
  app.require_subcommand(1);
  app.fallthrough();  // global options may come after the command too
  app.footer("Example:\n  pelorus create kavix8 --subnet auto --adapter --dhcp --nat");
  std::string sandbox;
  app.add_flag("--json", Output().json, "print read results as one JSON document");
  app.add_flag("--quiet", Output().quiet, "print nothing but errors");
  app.set_version_flag("--version", std::to_string(PLR_Version() >> 16) + "." +
                                        std::to_string(PLR_Version() & 0xFFFF));
  app.add_option("--sandbox", sandbox, "run in a private namespace with its state kept under DIR");
  // The sandbox is entered once the line is parsed and before any command runs.
  app.parse_complete_callback([&] {
    if (!sandbox.empty()) EnterSandbox(sandbox);
  });
  AddCommands(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    const std::vector<std::string> rest = app.remaining();
    if (app.get_subcommands().empty() && !rest.empty())
      fprintf(stderr, "pelorus: unknown command: %s (see pelorus --help)\n", rest.front().c_str());
    else
      fprintf(stderr, "pelorus: %s\n", e.what());
    return kExitUsage;
  } catch (const CommandError& e) {
    fprintf(stderr, "pelorus: %s\n", e.what());
    return e.status();
  }
  return 0;
}
