// The process-wide key/value store: job variables, definitions and page counters.
#pragma once

#include <QMap>
#include <QString>

class QIODevice;

// The keys that the document filter sets anew for every page it marks.
namespace PageKeys
{
inline constexpr char CurrentPage[] = "CURRENT_PAGE";
inline constexpr char CurrentPageContinuous[] = "CURRENT_PAGE_CONTINUOUS";
inline constexpr char PageCode[] = "PAGE_CODE";
inline constexpr const char* All[] = {CurrentPage, CurrentPageContinuous, PageCode};
} // namespace PageKeys

// One ordered map from key to value for the whole run. The variables file,
// DATE and TIME, the marker definitions and the page counters all live here;
// a later insert of a key replaces the earlier value.
// The key that makes every value a SCRIPT: command line refers to one
// argument of the program.
inline constexpr char ScriptWholeValuesKey[] = "MarkerScriptWholeValues";

class Variables
{
  public:
    // Returns the store, creating it empty on first use.
    static Variables& instance();

    // Reads "key=value" lines from an open device until its end. Blank lines
    // and lines starting with "#" are skipped; lines without a key are traced
    // and skipped. Key and value are taken untrimmed from the trimmed line.
    void read(QIODevice& device);

    // Writes every pair, in key order, as "key=value" lines in the local 8-bit
    // encoding.
    void write(QIODevice& device) const;

    // Returns the value of a key, or an empty text when it is absent.
    QString value(const QString& key) const;

    // Tells whether the key is present, even with an empty value.
    bool contains(const QString& key) const;

    // Adds a pair or replaces the value of an existing key.
    void insert(const QString& key, const QString& value);

    // Empties the store. The program never needs it; tests start afresh with it.
    void clear();

    // Whether the print-safe corrections are on: the key "MarkerSafeOutput"
    // holds "1". Without it the output is exactly the classic one.
    bool safeOutput() const;

    // Whether each copy ends with the accounting stamp: the key
    // "MarkerAccountingStamp" holds "1", with print-safe output on.
    bool accountingStamp() const;

    // Whether a value that a SCRIPT: command line refers to reaches the
    // program as one argument, as it is: the key "MarkerScriptWholeValues"
    // holds "1". Without it the command line is expanded and then split.
    bool scriptWholeValues() const;

  private:
    Variables() = default;

    QMap<QString, QString> m_values;
};
