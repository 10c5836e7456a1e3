// The queue's device URI: "quillet:" followed by the real printer's URI.
#pragma once

#include <QString>

// The scheme of this backend, and the prefix of the device URIs it serves.
inline constexpr char BackendScheme[] = "quillet";

// The real device behind a "quillet:" device URI.
struct RealDevice {
    // The URI after "quillet:", for example "socket://printer:9100".
    QString uri;
    // Its scheme, which names the real backend ("socket").
    QString scheme;
    // Why the URI cannot be used; empty when it can.
    QString error;
};

// Splits a device URI. It must start with "quillet:", and what follows must
// be a URI whose scheme is a plain backend name (letters, digits, "+", "-",
// ".") other than "quillet".
RealDevice realDevice(const QString& deviceUri);

// The URI with any "user:password@" part replaced by nothing, for messages.
QString uriForMessages(const QString& uri);
