#include "console.h"
#include "examine.h"
#include "secret-input.h"
#include "warnings.h"

#include <QtCore/QCoreApplication>

namespace {

Output *messages = nullptr;
bool verbose = false;

void showMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    const bool taken = type == QtWarningMsg && Warnings::take(text);
    if (verbose || (type == QtWarningMsg && !taken) || type == QtCriticalMsg || type == QtFatalMsg)
        messages->message(text);
}

} // namespace

int main(int argc, char *argv[])
{
    keepSecretsFromDumps();
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.contains(QStringLiteral("--help")) || arguments.contains(QStringLiteral("-h"))) {
        Output(false).print(stdout, QString::fromUtf8(Help));
        return Done;
    }
    if (arguments.contains(QStringLiteral("--version"))) {
        Output(false).print(stdout, QStringLiteral("authctl " AUTHCTL_VERSION));
        return Done;
    }

    QString problem;
    const auto request = parseRequest(arguments, nullptr, problem);
    Output output(request && request->json);
    if (!request) {
        output.message(problem + QStringLiteral(" (see authctl --help)"));
        return WrongUsage;
    }
    messages = &output;
    verbose = request->verbose;
    qInstallMessageHandler(showMessage);

    const bool watch = request->command == QLatin1String("watch");
    endOnSignals(watch ? Done : Interrupted);
    if (request->command == QLatin1String("doctor"))
        return examine(output, request->json);
    Console console(output);
    if (watch) {
        const int status = console.follow(*request);
        return status == Done ? QCoreApplication::exec() : status;
    }
    return request->command == QLatin1String("session") ? console.runSession(*request) : console.perform(*request);
}
