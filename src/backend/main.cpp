// Entry point of the quillet CUPS backend.
#include "backend/backend.h"

int main(int argc, char* argv[])
{
    return backendMain(argc, argv);
}
