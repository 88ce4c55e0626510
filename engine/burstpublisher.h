#pragma once

#include <QDeadlineTimer>
#include <QHash>
#include <QObject>
#include <QPair>
#include <QString>

#include <functional>

class QTimer;

namespace Tarvik {

// A retained document that a burst of events would publish again and again (hundreds of access points showing
// up in one scan) goes out once the burst is over, with what is true then: after a quiet moment, and never
// later than a second after the first event. Publications are kept per device, and an answer about the device
// sends its waiting ones first, so that nothing the client asks for overtakes them.
class BurstPublisher : public QObject
{
    Q_OBJECT

public:
    explicit BurstPublisher(QObject* parent);

    // The latest publish function of a device's document is the one that runs.
    void publishLater(const QString& device, int document, std::function<void()> publish);
    // Sends the device's waiting publications now.
    void flush(const QString& device);

private:
    using Key = QPair<QString, int>;

    struct Pending {
        QTimer* quiet = nullptr;
        QDeadlineTimer deadline;
        std::function<void()> publish;
    };

    void publishNow(const Key& key);

    QHash<Key, Pending> m_pending;
};

} // namespace Tarvik
