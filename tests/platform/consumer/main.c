#include <dtkit/dtkit.h>
#include <stdio.h>

int main(void) {
    char *p = (char *)DTMem_LocalMalloc(16);
    if (!p) return 1;
    DTMem_LocalFree(p);
    DTPrint_Puts("consumer linked", 0);
    return 0;
}
