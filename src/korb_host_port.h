#pragma once

#include <QString>
#include <QtGlobal>

// One reading of a "HOST:PORT" text for every place that takes one from an
// operator: the device address, the port probe and the tools' targets.
namespace Korb {

struct HostPort
{
    QString host;
    QString port;           // the text after the separator, trimmed
    bool separator = false; // whether the text names a port at all
};

// "HOST", "HOST:PORT", "[v6]", "[v6]:PORT" or a bare IPv6 address (more than
// one colon and no brackets: all host, no port). Blanks around the parts go.
HostPort splitHostPort(const QString &text);

// A port number 1..65535 written in decimal; false for anything else.
bool parsePort(const QString &text, quint16 *port);

} // namespace Korb
