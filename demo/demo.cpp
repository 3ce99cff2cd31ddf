// Demo: replaced by the walk-through of the library once the database lands.
#include <pelorus.h>
#include <stdio.h>

int main() {
  printf("pelorus %x\n", PLR_Version());
  return 0;
}
