#include "command.h"
#include "console.h"
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
    QString problem;
    const auto request = parseRequest(QCoreApplication::arguments(), nullptr, problem);
    Output output(request && request->json);
    if (!request) {
        output.message(problem + QStringLiteral(" (see authctl --help)"));
        return WrongUsage;
    }
    if (!request->information.isEmpty()) {
        output.print(stdout, request->information);
        return Done;
    }
    messages = &output;
    verbose = request->verbose;
    qInstallMessageHandler(showMessage);

    endOnSignals(request->command->has(EndsWell) ? Done : Interrupted);
    if (const auto *apart = std::get_if<PlainAction>(&request->command->action))
        return (*apart)(output, *request);
    return Console(output).perform(*request);
}
