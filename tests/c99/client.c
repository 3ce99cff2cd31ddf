/* A plain C99 client: loads a database, reads an answer, unloads; the exit status names the
 * step that failed. It runs in a private namespace. */
#include <pelorus.h>
#include <stdio.h>

int main(void) {
  PLR_NetworkID id = {PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, PLR_VNET_NONE};
  const char* value = NULL;
  FILE* db = fopen("/etc/tarsis/networking", "w");

  if (PLR_Version() != 0x10000u || !PLRValidateNetIDStruct(&id)) return 1;
  if (db == NULL || fputs("VERSION=1,0\nanswer VNET_1_DHCP yes\n", db) < 0 || fclose(db) != 0)
    return 2;
  if (!PLR_Load(0)) return 3;
  if (!PLR_VnetCfgGetAnswer("VNET_1_DHCP", &value) || value == NULL || value[0] != 'y') return 4;
  PLR_Unload();
  return PLR_VnetCfgGetAnswer("VNET_1_DHCP", &value) ? 5 : 0;
}
