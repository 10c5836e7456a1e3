// Entry point of quillet-queue, the marked queues' administration command.
#include "queueadmin/queuecommand.h"

int main(int argc, char* argv[])
{
    return queueMain(argc, argv);
}
