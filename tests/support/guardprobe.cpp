// "nxguardprobe try NAME" prints the result of a claim on NAME; "hold" keeps it until standard input closes.
#include "singleinstanceapp.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 3)
        return 2;
    SingleInstanceApp guard;
    std::printf("%d\n", guard.CreateAppInstance(QString::fromLocal8Bit(argv[2])));
    std::fflush(stdout);
    char line[64];
    if (QByteArray(argv[1]) == "hold") {
        const char* answer = std::fgets(line, sizeof line, stdin);  // holds the name until a line or the end
        static_cast<void>(answer);
    }
    return 0;
}
