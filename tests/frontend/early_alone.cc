// The ordinary start, for a link without the C library.
asm(".globl _start\n_start:\n  hlt\n");
