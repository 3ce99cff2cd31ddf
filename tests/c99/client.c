/* A plain C99 client of the public header: it must compile with -pedantic and
 * link against libpelorus.so. Outside a sandbox the database is absent, so the
 * load is expected to fail cleanly; the unload must then only log. */
#include <pelorus.h>
#include <stdio.h>

int main(void) {
  PLR_NetworkID id = {1, 1, 0xFFFFFFFFu};
  if (PLR_Version() != 0x10000u) {
    fprintf(stderr, "unexpected version %x\n", (unsigned)PLR_Version());
    return 1;
  }
  (void)id;
  bool loaded = PLR_Load(1);
  PLR_Unload();
  printf("PLR_Load returned %d\n", (int)loaded);
  return 0;
}
