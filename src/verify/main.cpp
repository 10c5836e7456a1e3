// Entry point of quillet-verify, the page-code checker.
#include "verify/verifycommand.h"

int main(int argc, char* argv[])
{
    return verifyMain(argc, argv);
}
