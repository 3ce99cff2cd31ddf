// A walk through the library as a configuration tool uses it: create a
// networking database, load it, change answers and records under the
// database lock, unload (which compacts the journal), then show the file and
// the log. scripts/demo.sh runs it in a private mount namespace, so the
// paths below are scratch copies, never the host's.
#include <pelorus.h>
#include <stdio.h>

namespace {

const char* const kDatabase = "/etc/tarsis/networking";
const char* const kLog = "/var/log/pelorus";

// Writes `text` as the whole content of `path`.
bool WriteText(const char* path, const char* text) {
  FILE* f = fopen(path, "w");
  if (f == nullptr) return false;
  bool ok = fputs(text, f) >= 0;
  return fclose(f) == 0 && ok;
}

// Prints a file between two rulers, under a title.
void Show(const char* title, const char* path) {
  printf("==== %s (%s) ====\n", title, path);
  FILE* f = fopen(path, "r");
  if (f == nullptr) {
    printf("(cannot open)\n");
    return;
  }
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) fwrite(buf, 1, n, stdout);
  fclose(f);
  printf("==== end of %s ====\n\n", title);
}

// Reports one step and whether it succeeded; returns the step's result.
bool Step(const char* what, bool ok) {
  printf("%-58s %s\n", what, ok ? "ok" : "FAILED");
  return ok;
}

// The changes a tool makes while it holds the database lock.
bool MakeChanges() {
  bool ok = true;
  ok &= Step("answer VNET_1_HOSTONLY_SUBNET = 192.168.56.0",
             PLR_VnetCfgAddAnswer("VNET_1_HOSTONLY_SUBNET", "192.168.56.0"));
  ok &= Step("answer VNET_1_HOSTONLY_NETMASK = 255.255.255.0",
             PLR_VnetCfgAddAnswer("VNET_1_HOSTONLY_NETMASK", "255.255.255.0"));
  ok &= Step("answer VNET_1_HOSTONLY_SUBNET = 192.168.57.0 (a change)",
             PLR_VnetCfgAddAnswer("VNET_1_HOSTONLY_SUBNET", "192.168.57.0"));
  ok &= Step("answer VNET_8_NAT = yes", PLR_VnetCfgAddAnswer("VNET_8_NAT", "yes"));
  ok &= Step("answer VNET_8_DISPLAY_NAME = kavix8",
             PLR_VnetCfgAddAnswer("VNET_8_DISPLAY_NAME", "kavix8"));
  ok &= Step("answer TEMPORARY = x, then removed",
             PLR_VnetCfgAddAnswer("TEMPORARY", "x") && PLR_VnetCfgRemoveAnswer("TEMPORARY"));
  ok &= Step(
      "port forward kavix8 tcp 443 -> 192.168.120.128:443",
      PLRNetCfgAddNATPortFwd(nullptr, 8, true, 443, "192.168.120.128", 443, "web server", false));
  ok &= Step("port forward kavix8 udp 53 -> 192.168.120.128:53",
             PLRNetCfgAddNATPortFwd(nullptr, 8, false, 53, "192.168.120.128", 53, nullptr, false));
  ok &= Step("DHCP mapping kavix8 02:7a:3e:2a:10:01 -> 192.168.120.130",
             PLRNetCfgAddDHCPMACToIP(nullptr, 8, "02:7a:3e:2a:10:01", "192.168.120.130", false));
  ok &= Step("bridge mapping eth0 -> kavix0",
             PLRNetCfgAddHostAdapterMapping(nullptr, "eth0", 0, false));
  ok &= Step("NAT prefix kavix8 fd00:1::/64", PLRNetCfgAddNATPrefix(nullptr, 8, "fd00:1::/64"));
  return ok;
}

}  // namespace

int main() {
  if (!Step("create the networking database", WriteText(kDatabase, "VERSION=1,0\n"))) return 1;
  if (!Step("PLR_Load(0)", PLR_Load(0))) {
    Show("log", kLog);
    return 1;
  }
  printf("library version %x, load count %u, log mask 0x%x\n", PLR_Version(),
         static_cast<unsigned>(plrContext.loadCount), PLR_GetCurrentLogLevel());
  // Every level from here on, so the log shows the API frame of the calls below.
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);
  Step("PLR_SetDefaultLogLevel(0x19) (stored for the next load)", PLR_SetDefaultLogLevel(0x19));

  bool ok = Step("take the database lock", PLRNetCfgLockConfig(nullptr));
  if (ok) {
    ok = MakeChanges();
    Step("release the database lock", PLRNetCfgUnlockConfig(nullptr));
  }
  const char* value = nullptr;
  if (PLR_VnetCfgGetAnswer("VNET_1_HOSTONLY_SUBNET", &value))
    printf("VNET_1_HOSTONLY_SUBNET reads back as %s\n", value);
  printf("\n");
  Show("journal while loaded", kDatabase);

  PLR_Unload();
  printf("unloaded: load count %u\n\n", static_cast<unsigned>(plrContext.loadCount));
  printf(
      "The compacted file keeps answers, port forwards, DHCP and bridge mappings;\n"
      "NAT prefixes live only as journal records and are not carried over.\n\n");
  Show("compacted database", kDatabase);
  Show("log", kLog);
  return ok ? 0 : 1;
}
