/* Built as strict C99 by the build and against the installed tree by the
 * install check: the public header must stand on its own in C. */
#include <zelmgmt.h>
#include <stdio.h>

int main(void) {
    ZelSession *s = NULL;
    ZelTargetService ts = {0};
    ZelSessionInfo *info = NULL;
    ZelRC rc = Zel_getTargetService(s, "x", NULL);
    (void)ts;
    if (Zel_getSessionInfo(s, &info) != ZEL_RC_INVALID_HANDLE || info != NULL) return 1;
    Zel_freeSessionInfo(info);
    printf("%u %s\n", (unsigned)rc, Zel_strerror(ZEL_RC_INVALID_HANDLE));
    return rc == ZEL_RC_INVALID_HANDLE ? 0 : 1;
}
