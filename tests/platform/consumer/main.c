#include <dtkit/dtkit.h>
#include <stdio.h>

int main(void) {
    DTMem_LocalFree(DTMem_LocalMalloc(16));
    // The installed headers carry the read-out (of that block) and the configured fault-file path.
    DTMemOwnerStats own;
    if (DTMem_GetOwnerStats(0, &own) != 0 || own.mallocs == 0) return 2;
    if (sizeof DTFAULT_FILE < 2) return 3;
    DTPrint_Puts("consumer linked", 0);
    return 0;
}
