// nxindexer: one pass over every database under the DB host directory.
// Takes no arguments; everything it reports goes to its log file.
#include "Logger.h"
#include "nxi.h"

#include <QCoreApplication>

#include <cstdlib>

int main(int argc, char** argv)
{
    // The application object comes first: the logger names its file after the
    // first argument and the installation root is the application's directory.
    QCoreApplication application(argc, argv);
    LOGGER::CLogger::getInstance()->Info(
        __PRETTY_FUNCTION__,
        "--------------------------Build Date : 2024-12-12 04:30 PM ----------------------------");

    nxi indexer;
    indexer.StartProcess();
    std::exit(0);
}
