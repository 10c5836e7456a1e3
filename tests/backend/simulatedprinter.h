// A simulated driverless printer for the end-to-end tests: CUPS's
// ippeveprinter on a free port of the loopback interface, keeping every
// document it accepts in a private temporary folder. ippeveprinter will not
// start without Avahi, so each printer runs beside its own D-Bus system bus
// and avahi-daemon in private namespaces (tests/support/private-avahi); the
// host's bus, daemon and print server are never used.
//
// A printer that refused a document keeps answering "busy" afterwards, so
// tests start one printer per case: a start takes well under a second.
#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class SimulatedPrinter
{
  public:
    SimulatedPrinter();
    ~SimulatedPrinter();

    SimulatedPrinter(const SimulatedPrinter&) = delete;
    SimulatedPrinter& operator=(const SimulatedPrinter&) = delete;

    // Whether ippeveprinter, ipptool, dbus-daemon and avahi-daemon are
    // installed, the test runs as root (the namespaces need it) and the
    // loopback interface has IPv6 (ippeveprinter needs ::1 beside 127.0.0.1).
    static bool available();

    // Starts a printer that accepts the document formats (MIME types) and,
    // with twoSided, prints on both sides; false with *error set on failure.
    // ippeveprinter always accepts application/octet-stream besides them.
    //
    // extraAttributes are lines of ippeveprinter's attribute files ("ATTR
    // keyword pwg-raster-document-sheet-back rotated"). ippeveprinter takes
    // such a file only instead of its built-in printer, and then accepts
    // image/pwg-raster and image/urf whatever it is told: formats must name
    // no other. The harness therefore asks a built-in printer with the same
    // formats and sides for its attributes first, and hands the new printer
    // those, with every attribute that extraAttributes names replaced.
    bool start(const QStringList& formats, bool twoSided, QString* error,
               const QByteArray& extraAttributes = {});

    // Makes every later print fail once the document has arrived (call
    // before start()): the printer takes the job, keeps the document and
    // then aborts the job, as a printer does that jams or runs out of paper
    // for good.
    void failEveryPrint() { m_printFails = true; }

    // Kills every process that start() began and waits for them to end;
    // the kept documents go with the temporary folder.
    void stop();

    // The printer's URI, e.g. ipp://127.0.0.1:8631/ipp/print; empty before start().
    QString uri() const;

    // The documents kept so far, in the order the printer finished them. A
    // document is listed once it has been received completely.
    QStringList receivedDocuments() const;

    // Waits until at least `count` documents are kept; false on time-out.
    bool waitForDocuments(int count, int timeoutMs) const;

    // What ippeveprinter wrote (verbose), for failure messages.
    QString log() const;

    // The processes that start() began and that still run: the namespace
    // helper, ippeveprinter, the bus and avahi-daemon.
    QList<qint64> processIds() const;

    // The printer's attributes as ipptool prints them (Get-Printer-Attributes
    // of "all" and media-col-database), name to value text; empty with
    // *error set on failure.
    QMap<QString, QString> printerAttributes(QString* error) const;

    // Sends a file with Print-Job as the given document format; false with
    // *error set when the printer does not accept it.
    bool printFile(const QString& path, const QString& format, QString* error) const;

    // The values of an attribute's text as ipptool prints it: split at the
    // commas outside collections ("{...}").
    static QStringList splitValues(const QString& text);

  private:
    // ippeveprinter with the arguments, in a new temporary folder; waits
    // until it answers.
    bool launch(const QStringList& printerArguments, QString* error);
    // The built-in printer's attributes for the formats and sides, as an
    // attribute file, with those named in `replaced` left out.
    bool builtInAttributes(const QStringList& formats, bool twoSided, const QByteArray& replaced,
                           QByteArray* attributes, QString* error);
    // Kills the started processes and waits for them; keeps the folder.
    void stopProcesses();
    QString folderPath(const QString& name) const;

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<QProcess> m_process;
    int m_port = 0;
    bool m_printFails = false;
};
