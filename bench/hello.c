/* A program that prints one line: what the start of any program costs. */
#include <stdio.h>

int main(void) {
  return puts("kestrun (release) 1.0.0.0") < 0;
}
