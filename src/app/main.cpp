// Entry point of the quillet print filter.
#include "app/startup.h"

int main(int argc, char* argv[])
{
    return quilletMain(argc, argv);
}
