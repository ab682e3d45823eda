#ifndef NXI_SINGLEINSTANCEAPP_H
#define NXI_SINGLEINSTANCEAPP_H

#include <QObject>
#include <QString>

class QLocalServer;

// Lets a process claim a name through a local socket server, or learn that
// another process already holds it.
class SingleInstanceApp : public QObject
{
public:
    SingleInstanceApp();
    ~SingleInstanceApp() override;

    // 0: another instance answered within 100 ms; 1: this guard now listens on
    // the name; 2: nobody answered but listening failed.
    int CreateAppInstance(const QString& name);
    // Releases the name; always true.
    bool CloseAppInstance();
    // The server's error text; empty when no server exists.
    QString Error_String();

private:
    QLocalServer* m_LocalServer = nullptr;
};

#endif
