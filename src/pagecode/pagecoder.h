// The page codes of one marking run: set up once at start-up from the store,
// asked for each page's code by the output writer.
#pragma once

#include "pagecode/pagecode.h"

#include <QByteArray>
#include <QString>

class Variables;

// The process-wide maker of the run's page codes. It is off unless the
// definitions name a key file in "MarkerPageCodeKey".
class PageCoder
{
  public:
    // The store key naming the key file (a setting of the definitions).
    static const char KeySetting[];

    // The store key naming the key file of this job alone, which the print
    // queue's backend writes into the job's variables: with both settings
    // the coder reads this file in place of the definitions' key, which the
    // marking account may not read. It never turns codes on by itself.
    static const char JobKeySetting[];

    // Returns the coder, off, creating it on first use.
    static PageCoder& instance();

    // Reads the setting and, when it is there, the key file (the job's own
    // key file when JobKeySetting names one), the job id
    // ("job-id"), the copy ("CURRENT_COPY") and the day of marking ("DATE" as
    // dd.MM.yyyy, else today) from the store. Returns an empty text when the
    // coder is ready or off, else the message that must end the run.
    QString setUp(const Variables& variables);

    // Whether codes are made in this run.
    bool isOn() const { return m_on; }

    // The grouped code of a page (counted from 1) of this run.
    QString code(qint64 page) const;

    // Turns the coder off again. The program never needs it; tests start
    // afresh with it.
    void reset();

  private:
    PageCoder() = default;

    bool m_on = false;
    QByteArray m_jobSecret;
    qint64 m_job = 0;
    qint64 m_copy = 0;
    QDate m_date;
};
