// Reading and extending the operation policies of cupsd.conf.
#include "backend/serverpolicy.h"

#include <QList>
#include <QStringList>

#include <cups/cups.h>

namespace
{

// One <Limit> block of a policy.
struct Limit {
    QStringList operations;
    QString authType;
    // The names after "Require user" or "Require group"; "valid-user" has none.
    QStringList requiredNames;
    bool requires = false;
};

struct Policy {
    QString name;
    QList<Limit> limits;
};

struct Configuration {
    QString defaultAuthType = QStringLiteral("Basic");
    QString defaultPolicy = QStringLiteral("default");
    QList<Policy> policies;
};

bool same(const QString& a, const char* b)
{
    return a.compare(QLatin1String(b), Qt::CaseInsensitive) == 0;
}

// The words of a line; a block's opening or closing tag loses its angle
// brackets ("<Limit A B>" gives "<Limit", "A", "B").
QStringList words(const QByteArray& line)
{
    QString text = QString::fromUtf8(line).trimmed();
    if (text.endsWith(QLatin1Char('>')))
        text.chop(1);
    return text.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

Configuration parse(const QByteArray& conf)
{
    Configuration configuration;
    Policy* policy = nullptr;
    Limit* limit = nullptr;
    int otherBlocks = 0;
    for (const QByteArray& line : conf.split('\n')) {
        const QStringList word = words(line);
        if (word.isEmpty() || word.first().startsWith(QLatin1Char('#')))
            continue;
        const QString& key = word.first();
        if (same(key, "<Policy") && !policy && otherBlocks == 0) {
            configuration.policies.append({word.value(1), {}});
            policy = &configuration.policies.last();
        } else if (same(key, "</Policy")) {
            policy = nullptr;
            limit = nullptr;
        } else if (policy && same(key, "<Limit")) {
            policy->limits.append(Limit());
            limit = &policy->limits.last();
            limit->operations = word.mid(1);
        } else if (policy && same(key, "</Limit")) {
            limit = nullptr;
        } else if (key.startsWith(QLatin1String("</"))) {
            otherBlocks = qMax(0, otherBlocks - 1);
        } else if (key.startsWith(QLatin1Char('<'))) {
            ++otherBlocks;
        } else if (limit && same(key, "AuthType")) {
            limit->authType = word.value(1);
        } else if (limit && same(key, "Require")) {
            limit->requires = true;
            if (same(word.value(1), "user") || same(word.value(1), "group"))
                limit->requiredNames += word.mid(2);
        } else if (!policy && otherBlocks == 0 && same(key, "DefaultAuthType")) {
            configuration.defaultAuthType = word.value(1);
        } else if (!policy && otherBlocks == 0 && same(key, "DefaultPolicy")) {
            configuration.defaultPolicy = word.value(1);
        }
    }
    return configuration;
}

// The limit that the server applies to an operation: the first that names
// it, else the first for "All".
const Limit* limitOf(const Policy& policy, const char* operation)
{
    for (const Limit& limit : policy.limits) {
        for (const QString& name : limit.operations) {
            if (same(name, operation))
                return &limit;
        }
    }
    for (const Limit& limit : policy.limits) {
        for (const QString& name : limit.operations) {
            if (same(name, "All"))
                return &limit;
        }
    }
    return nullptr;
}

bool takesAnonymous(const Limit* limit, const QString& defaultAuthType)
{
    if (!limit || !limit->requires)
        return true;
    // A limit without AuthType is counted as asking for none.
    QString type = limit->authType.isEmpty() ? QStringLiteral("None") : limit->authType;
    if (same(type, "Default"))
        type = defaultAuthType;
    return same(type, "None") && limit->requiredNames.isEmpty();
}

} // namespace

SubmissionRule submissionRule(const QByteArray& cupsdConf, const QString& policy)
{
    const Configuration configuration = parse(cupsdConf);
    SubmissionRule rule;
    rule.policy = policy.isEmpty() ? configuration.defaultPolicy : policy;
    for (const Policy& block : configuration.policies) {
        if (block.name != rule.policy)
            continue;
        rule.found = true;
        rule.anonymous = takesAnonymous(limitOf(block, "Create-Job"), configuration.defaultAuthType) ||
                         takesAnonymous(limitOf(block, "Print-Job"), configuration.defaultAuthType);
        break;
    }
    return rule;
}

QString runningQueueOpPolicy(const QString& queue, bool* asked)
{
    *asked = false;
    http_t* http =
        httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1, 30000, nullptr);
    if (!http)
        return QString();
    char uri[HTTP_MAX_URI];
    httpAssembleURIf(HTTP_URI_CODING_ALL, uri, sizeof uri, "ipp", nullptr, "localhost", ippPort(),
                     "/printers/%s", queue.toUtf8().constData());
    ipp_t* request = ippNewRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, uri);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", nullptr,
                 "printer-op-policy");
    ipp_t* response = cupsDoRequest(http, request, "/");
    ipp_attribute_t* policy = response && ippGetStatusCode(response) <= IPP_STATUS_OK_CONFLICTING
                                  ? ippFindAttribute(response, "printer-op-policy", IPP_TAG_NAME)
                                  : nullptr;
    QString name;
    if (policy && ippGetString(policy, 0, nullptr)) {
        name = QString::fromUtf8(ippGetString(policy, 0, nullptr));
        *asked = !name.isEmpty();
    }
    ippDelete(response);
    httpClose(http);
    return name;
}

bool hasPolicy(const QByteArray& cupsdConf, const QString& policy)
{
    for (const Policy& block : parse(cupsdConf).policies) {
        if (block.name == policy)
            return true;
    }
    return false;
}

QByteArray withMarkedQueuePolicy(const QByteArray& cupsdConf)
{
    const Configuration configuration = parse(cupsdConf);
    const QByteArray authType =
        same(configuration.defaultAuthType, "None") ? QByteArray("Basic") : QByteArray("Default");
    const QByteArray limit = "    AuthType " + authType + "\n";
    QByteArray policy = cupsdConf;
    if (!policy.isEmpty() && !policy.endsWith('\n'))
        policy += '\n';
    policy += "\n# Marked print queues (quillet-queue create): a job is taken only from an\n"
              "# authenticated user, whom its marks and its audit line name.\n"
              "<Policy " +
              QByteArray(MarkedQueuePolicy) +
              ">\n"
              "  JobPrivateAccess default\n"
              "  JobPrivateValues default\n"
              "  SubscriptionPrivateAccess default\n"
              "  SubscriptionPrivateValues default\n"
              "  <Limit Create-Job Print-Job Print-URI Validate-Job>\n" +
              limit +
              "    Require valid-user\n"
              "    Order deny,allow\n"
              "  </Limit>\n"
              "  <Limit Send-Document Send-URI Hold-Job Release-Job Restart-Job Purge-Jobs "
              "Set-Job-Attributes Create-Job-Subscription Renew-Subscription Cancel-Subscription "
              "Get-Notifications Reprocess-Job Cancel-Current-Job Suspend-Current-Job Resume-Job "
              "Cancel-My-Jobs Close-Job CUPS-Move-Job CUPS-Get-Document Cancel-Job CUPS-Authenticate-Job>\n" +
              limit +
              "    Require user @OWNER @SYSTEM\n"
              "    Order deny,allow\n"
              "  </Limit>\n"
              "  <Limit CUPS-Add-Modify-Printer CUPS-Delete-Printer CUPS-Add-Modify-Class CUPS-Delete-Class "
              "CUPS-Set-Default CUPS-Get-Devices Pause-Printer Resume-Printer Enable-Printer Disable-Printer "
              "Pause-Printer-After-Current-Job Hold-New-Jobs Release-Held-New-Jobs Deactivate-Printer "
              "Activate-Printer Restart-Printer Shutdown-Printer Startup-Printer Promote-Job "
              "Schedule-Job-After Cancel-Jobs CUPS-Accept-Jobs CUPS-Reject-Jobs>\n" +
              limit +
              "    Require user @SYSTEM\n"
              "    Order deny,allow\n"
              "  </Limit>\n"
              "  <Limit All>\n"
              "    Order deny,allow\n"
              "  </Limit>\n"
              "</Policy>\n";
    return policy;
}

QString queueOpPolicy(const QByteArray& printersConf, const QString& queue)
{
    bool inQueue = false;
    for (const QByteArray& rawLine : printersConf.split('\n')) {
        const QStringList words = QString::fromUtf8(rawLine).simplified().split(QLatin1Char(' '));
        const QString first = words.value(0);
        if (first.startsWith(QLatin1Char('<'))) {
            // "<Printer name>" or "<DefaultPrinter name>" opens a queue's block.
            const QString name = words.value(1).chopped(words.value(1).endsWith(QLatin1Char('>')) ? 1 : 0);
            inQueue = (first.compare(QLatin1String("<Printer"), Qt::CaseInsensitive) == 0 ||
                       first.compare(QLatin1String("<DefaultPrinter"), Qt::CaseInsensitive) == 0) &&
                      name == queue;
        } else if (inQueue && words.size() == 2 &&
                   first.compare(QLatin1String("OpPolicy"), Qt::CaseInsensitive) == 0) {
            return words.at(1);
        }
    }
    return QString();
}
