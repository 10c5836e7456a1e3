// Who may submit jobs under a policy of cupsd.conf, and the policy that
// quillet-queue adds for marked queues.
#include "backend/serverpolicy.h"

#include <QtTest>

namespace
{

// The shape of the policies that CUPS ships, cut down to the limits that
// matter here.
const char Shipped[] = "LogLevel warn\n"
                       "DefaultAuthType Basic\n"
                       "<Location />\n  Order allow,deny\n</Location>\n"
                       "<Location /admin>\n  AuthType Default\n  Require user @SYSTEM\n</Location>\n"
                       "<Policy default>\n"
                       "  JobPrivateAccess default\n"
                       "  <Limit Create-Job Print-Job Print-URI Validate-Job>\n"
                       "    Order deny,allow\n"
                       "  </Limit>\n"
                       "  <Limit Send-Document Cancel-Job>\n"
                       "    Require user @OWNER @SYSTEM\n"
                       "    Order deny,allow\n"
                       "  </Limit>\n"
                       "  <Limit All>\n    Order deny,allow\n  </Limit>\n"
                       "</Policy>\n"
                       "<Policy authenticated>\n"
                       "  <Limit Create-Job Print-Job Print-URI Validate-Job>\n"
                       "    AuthType Default\n"
                       "    Require valid-user\n"
                       "    Order deny,allow\n"
                       "  </Limit>\n"
                       "  <Limit All>\n    Order deny,allow\n  </Limit>\n"
                       "</Policy>\n";

} // namespace

class TestServerPolicy : public QObject
{
    Q_OBJECT

  private slots:
    void submission_data();
    void submission();
    void markedQueuePolicyRequiresAUser_data();
    void markedQueuePolicyRequiresAUser();
};

void TestServerPolicy::submission_data()
{
    QTest::addColumn<QByteArray>("conf");
    QTest::addColumn<QString>("policy");
    QTest::addColumn<QString>("applied");
    QTest::addColumn<bool>("found");
    QTest::addColumn<bool>("anonymous");

    QTest::newRow("shipped default") << QByteArray(Shipped) << "default"
                                     << "default" << true << true;
    QTest::newRow("no name: the default policy") << QByteArray(Shipped) << ""
                                                 << "default" << true << true;
    QTest::newRow("another default policy") << QByteArray("DefaultPolicy authenticated\n") + Shipped << ""
                                            << "authenticated" << true << false;
    QTest::newRow("authenticated") << QByteArray(Shipped) << "authenticated"
                                   << "authenticated" << true << false;
    QTest::newRow("authenticated, but the server authenticates nobody")
        << QByteArray(Shipped).replace("DefaultAuthType Basic", "DefaultAuthType None") << "authenticated"
        << "authenticated" << true << true;
    QTest::newRow("unknown policy") << QByteArray(Shipped) << "nosuch"
                                    << "nosuch" << false << true;
    QTest::newRow("print jobs only in All")
        << QByteArray(
               "<Policy p>\n <Limit All>\n  AuthType Basic\n  Require valid-user\n </Limit>\n</Policy>\n")
        << "p"
        << "p" << true << false;
    QTest::newRow("no limit at all") << QByteArray("<Policy p>\n JobPrivateAccess default\n</Policy>\n")
                                     << "p"
                                     << "p" << true << true;
    QTest::newRow("Create-Job open, Print-Job closed")
        << QByteArray(
               "<Policy p>\n <Limit Print-Job>\n  AuthType Negotiate\n  Require valid-user\n </Limit>\n"
               " <Limit All>\n  Order deny,allow\n </Limit>\n</Policy>\n")
        << "p"
        << "p" << true << true;
    QTest::newRow("named users without authentication")
        << QByteArray(
               "<Policy p>\n <Limit Create-Job Print-Job>\n  Require user alice\n </Limit>\n</Policy>\n")
        << "p"
        << "p" << true << false;
    QTest::newRow("require without AuthType")
        << QByteArray(
               "<Policy p>\n <Limit Create-Job Print-Job>\n  Require valid-user\n </Limit>\n</Policy>\n")
        << "p"
        << "p" << true << true;
    QTest::newRow("commented out")
        << QByteArray("<Policy p>\n <Limit Create-Job Print-Job>\n  #AuthType Basic\n  #Require valid-user\n"
                      " </Limit>\n</Policy>\n")
        << "p"
        << "p" << true << true;
    QTest::newRow("limits of a location do not count")
        << QByteArray("<Location />\n <Limit Create-Job>\n  AuthType Basic\n  Require valid-user\n </Limit>\n"
                      "</Location>\n<Policy p>\n</Policy>\n")
        << "p"
        << "p" << true << true;
}

void TestServerPolicy::submission()
{
    QFETCH(QByteArray, conf);
    QFETCH(QString, policy);
    QFETCH(QString, applied);
    QFETCH(bool, found);
    QFETCH(bool, anonymous);
    const SubmissionRule rule = submissionRule(conf, policy);
    QCOMPARE(rule.policy, applied);
    QCOMPARE(rule.found, found);
    QCOMPARE(rule.anonymous, anonymous);
    QCOMPARE(hasPolicy(conf, applied), found);
}

void TestServerPolicy::markedQueuePolicyRequiresAUser_data()
{
    QTest::addColumn<QByteArray>("conf");
    QTest::addColumn<QByteArray>("authType");

    QTest::newRow("shipped") << QByteArray(Shipped) << QByteArray("AuthType Default");
    QTest::newRow("no authentication by default")
        << QByteArray(Shipped).replace("DefaultAuthType Basic", "DefaultAuthType None")
        << QByteArray("AuthType Basic");
    QTest::newRow("Kerberos by default")
        << QByteArray(Shipped).replace("DefaultAuthType Basic", "DefaultAuthType Negotiate")
        << QByteArray("AuthType Default");
    QTest::newRow("no line feed at the end")
        << QByteArray("Listen /run/cups/cups.sock") << QByteArray("AuthType Default");
}

void TestServerPolicy::markedQueuePolicyRequiresAUser()
{
    QFETCH(QByteArray, conf);
    QFETCH(QByteArray, authType);
    QVERIFY(!hasPolicy(conf, QLatin1String(MarkedQueuePolicy)));
    const QByteArray changed = withMarkedQueuePolicy(conf);
    QVERIFY(changed.startsWith(conf + '\n'));
    QVERIFY(hasPolicy(changed, QLatin1String(MarkedQueuePolicy)));
    QVERIFY(changed.contains("    " + authType + "\n    Require valid-user\n"));
    const SubmissionRule rule = submissionRule(changed, QLatin1String(MarkedQueuePolicy));
    QVERIFY(rule.found);
    QVERIFY(!rule.anonymous);
    // The other policies read as before.
    QCOMPARE(submissionRule(changed, QStringLiteral("default")).anonymous,
             submissionRule(conf, QStringLiteral("default")).anonymous);
}

QTEST_GUILESS_MAIN(TestServerPolicy)
#include "tst_serverpolicy.moc"
