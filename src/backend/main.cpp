// Entry point of the quillet CUPS backend.
#include "backend/backend.h"

#ifdef QUILLET_SANITIZED
// libcups 2.4 keeps a few strings of the PPD cache that cupsMarkOptions makes
// for IPP options such as "sides" beyond ppdClose. The print server starts
// the backend with an environment of its own, so the leak checker of a
// sanitizer build is told here to pass over that one allocation site of the
// library and to check everything else.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:_ppdCacheCreateWithPPD\n";
}
#endif

int main(int argc, char* argv[])
{
    return backendMain(argc, argv);
}
