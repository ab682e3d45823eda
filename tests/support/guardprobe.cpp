// The second process of the single-instance guard's tests.
//   nxguardprobe try NAME   prints the result of a claim on NAME and exits
//   nxguardprobe hold NAME  prints the result, then keeps the claim until a
//                           line arrives on standard input or it closes
#include "singleinstanceapp.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const bool hold = argc == 3 && std::strcmp(argv[1], "hold") == 0;
    const bool once = argc == 3 && std::strcmp(argv[1], "try") == 0;
    if (!hold && !once) {
        std::fprintf(stderr, "usage: nxguardprobe try|hold NAME\n");
        return 2;
    }

    SingleInstanceApp guard;
    std::printf("%d\n", guard.CreateAppInstance(QString::fromLocal8Bit(argv[2])));
    std::fflush(stdout);
    if (hold) {
        char line[64];
        (void)std::fgets(line, sizeof line, stdin);
    }
    return 0;
}
