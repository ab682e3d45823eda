#include "singleinstanceapp.h"

#include <QLocalServer>
#include <QLocalSocket>

namespace {
const int kAnswerTimeoutMs = 100;
}

SingleInstanceApp::SingleInstanceApp() : QObject(nullptr) {}

// QObject deletes every server created here, as a child, after this runs.
SingleInstanceApp::~SingleInstanceApp() { CloseAppInstance(); }

int SingleInstanceApp::CreateAppInstance(const QString& name)
{
    // A holder's server accepts at the socket level, so it answers even
    // while its own thread is busy; no data is exchanged.
    QLocalSocket probe;
    probe.connectToServer(name, QIODevice::ReadWrite);
    if (probe.waitForConnected(kAnswerTimeoutMs))
        return 0;

    // Nobody answered: a socket file left by a holder that died without
    // closing its server would make listening fail, so it goes first.
    QLocalServer::removeServer(name);
    m_LocalServer = new QLocalServer(this);
    if (m_LocalServer->listen(name))
        return 1;
    CloseAppInstance();
    return 2;
}

bool SingleInstanceApp::CloseAppInstance()
{
    if (m_LocalServer == nullptr)
        return true;
    // A closed server reports no name; an empty name must not be handed to
    // removeServer, which would then aim at the temporary directory itself.
    const QString name = m_LocalServer->serverName();
    if (!name.isEmpty())
        QLocalServer::removeServer(name);
    m_LocalServer->close();
    return true;
}

QString SingleInstanceApp::Error_String()
{
    if (m_LocalServer == nullptr)
        return QString();
    return m_LocalServer->errorString();
}
