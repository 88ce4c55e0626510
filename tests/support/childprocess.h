#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// A helper program run to completion as a child in its own process group,
// with everything it wrote.
struct ChildResult {
    bool finished = false;
    int exitCode = -1;
    QByteArray standardOutput;
    QByteArray standardError;
};

// Runs the program and waits for it; if it outlives the deadline its whole
// process group is killed and `finished` stays false.
ChildResult runChild(const QString& program, const QStringList& arguments,
                     const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
                     int timeoutMs = 60000);

// Path of a test probe program, as the build hands it over in TARVIK_PROBE_<name>.
QString probePath(const char* name);
