#include <stdio.h>

extern const char* const name;

int main(void) {
  printf("Hello from %s\n", name);
  return 0;
}
