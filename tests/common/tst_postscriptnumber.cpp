// Tests of the numbers that the output may carry: the syntax that every
// PostScript interpreter reads, the length bound and the range of reals.
#include "common/postscriptnumber.h"

#include <QTest>

#include <cfloat>
#include <limits>

class TestPostScriptNumber : public QObject
{
    Q_OBJECT

  private slots:
    void postScriptNumber_data();
    void postScriptNumber();
    void postScriptReal_data();
    void postScriptReal();
};

void TestPostScriptNumber::postScriptNumber_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("number");

    const QList<QPair<const char*, bool>> rows = {
        {"0", true},
        {"12", true},
        {"-7", true},
        {"+7", true},
        {"1.5", true},
        {"1.", true},
        {".5", true},
        {"-.5", true},
        {"+1.25e3", true},
        {"1E-3", true},
        {"1e+3", true},
        {".5e2", true},
        {"1.e2", true},
        {"  42  ", true},
        {"\t3.5\n", true},
        {"007", true},
        {"", false},
        {"   ", false},
        {".", false},
        {"-", false},
        {"+", false},
        {"-.", false},
        {"e5", false},
        {"1e", false},
        {"1e+", false},
        {"1.5.2", false},
        {"1,5", false},
        {"++1", false},
        {"1 2", false},
        {"0x10", false},
        {"nan", false},
        {"inf", false},
        {"-inf", false},
        {"1e39", false},   // beyond the largest single-precision real
        {"1e-39", false},  // below the smallest normal one
        {"3.4e38", true},
        {"1.2e-38", true},
        {"0e99999", true}, // zero whatever the exponent
        {"12345678901234567890123456789012", true},
        {"123456789012345678901234567890123", false}, // 33 characters
        {"\xd9\xa3", false}, // a digit of another script
    };
    for (const auto& row : rows)
        QTest::addRow("'%s'", row.first) << QString::fromUtf8(row.first) << row.second;
    QTest::newRow("full-width digit") << QStringLiteral("\uff11") << false;
}

void TestPostScriptNumber::postScriptNumber()
{
    QFETCH(QString, text);
    QFETCH(bool, number);
    QCOMPARE(isPostScriptNumber(text), number);
}

void TestPostScriptNumber::postScriptReal_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<bool>("real");

    QTest::newRow("zero") << 0.0 << true;
    QTest::newRow("negative zero") << -0.0 << true;
    QTest::newRow("one") << 1.0 << true;
    QTest::newRow("largest single") << double(FLT_MAX) << true;
    QTest::newRow("beyond the largest single") << double(FLT_MAX) * 2 << false;
    QTest::newRow("smallest normal single") << double(FLT_MIN) << true;
    QTest::newRow("below the smallest normal single") << double(FLT_MIN) / 2 << false;
    QTest::newRow("infinity") << std::numeric_limits<double>::infinity() << false;
    QTest::newRow("not a number") << std::numeric_limits<double>::quiet_NaN() << false;
}

void TestPostScriptNumber::postScriptReal()
{
    QFETCH(double, value);
    QFETCH(bool, real);
    QCOMPARE(isPostScriptReal(value), real);
}

QTEST_GUILESS_MAIN(TestPostScriptNumber)
#include "tst_postscriptnumber.moc"
