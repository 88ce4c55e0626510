#pragma once

#include <QObject>
#include <QString>

#include <functional>

class QTcpSocket;

namespace Tarvik {

// One fresh TCP connection to "host:port": an old connection can look alive long after its route is gone.
class ReachabilityProbe : public QObject
{
    Q_OBJECT

public:
    using Done = std::function<void(bool reached, const QString& why)>;

    // The probe belongs to `parent` and ends with it; `done` is called once, unless the parent goes first.
    static void start(const QString& hostAndPort, QObject* parent, Done done);

private:
    ReachabilityProbe(QObject* parent, Done done);
    void finish(bool reached, const QString& why);

    QTcpSocket* m_socket;
    Done m_done;
    bool m_finished = false;
};

} // namespace Tarvik
