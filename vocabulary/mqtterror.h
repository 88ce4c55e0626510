#pragma once

#include <QObject>

namespace Tarvik {

// Why a broker session failed, numbered like the error texts of the service:
// CONNACK codes 1..5, then transport, protocol and anything else from 256 on.
class MqttError
{
    Q_GADGET

public:
    enum Code {
        NoError = 0,
        InvalidProtocolVersion = 1,
        IdRejected = 2,
        ServerUnavailable = 3,
        BadUsernameOrPassword = 4,
        NotAuthorized = 5,
        TransportInvalid = 256,
        ProtocolViolation,
        UnknownError
    };
    Q_ENUM(Code)
};

} // namespace Tarvik
