/* A plain C99 client of the public header: it must compile with -pedantic,
 * link against libpelorus.so, and load and unload a database. ctest runs it
 * through scripts/private-ns.sh, so the fixed paths are private scratch. */
#include <pelorus.h>
#include <stdio.h>

static int Fail(const char* what) {
  fprintf(stderr, "c99 client: %s\n", what);
  return 1;
}

int main(void) {
  PLR_NetworkID id = {PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, PLR_VNET_NONE};
  const char* value = NULL;
  FILE* db;

  if (PLR_Version() != 0x10000u) return Fail("unexpected version");
  db = fopen("/etc/tarsis/networking", "w");
  if (db == NULL || fputs("VERSION=1,0\nanswer VNET_1_DHCP yes\n", db) < 0 || fclose(db) != 0)
    return Fail("cannot write the database");
  if (!PLR_Load(0)) return Fail("PLR_Load failed");
  if (!PLRValidateNetIDStruct(&id)) return Fail("network ID refused");
  if (!PLR_VnetCfgGetAnswer("VNET_1_DHCP", &value) || value == NULL || value[0] != 'y')
    return Fail("answer not read back");
  PLR_Unload();
  if (PLR_VnetCfgGetAnswer("VNET_1_DHCP", &value)) return Fail("answer readable after unload");
  printf("c99 client: loaded, read an answer, unloaded\n");
  return 0;
}
