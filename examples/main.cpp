// Shows one of the screens: its Main.qml in a window, or drawn into a file.

#include <QtCore/QCommandLineParser>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>
#include <QtGui/QGuiApplication>
#include <QtQml/QQmlApplicationEngine>
#include <QtQml/QQmlProperty>
#include <QtQuick/QQuickItem>
#include <QtQuick/QQuickItemGrabResult>
#include <QtQuick/QQuickWindow>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The probe of authd-hostcheck: the descriptor is told what the screen claims, and gives codes to enter.
class Probe : public QObject
{
    Q_OBJECT

public:
    Probe(int descriptor, QQuickWindow *screen)
        : QObject(screen)
        , m_descriptor(descriptor)
        , m_screen(screen)
        , m_notifier(descriptor, QSocketNotifier::Read)
    {
        // Whoever listens may go first, and must not take the screen along.
        signal(SIGPIPE, SIG_IGN);
        connect(&m_notifier, &QSocketNotifier::activated, this, &Probe::read);
        QQmlProperty(screen, QStringLiteral("unlocked")).connectNotifySignal(this, SLOT(tell()));
        tell();
    }

private Q_SLOTS:
    void tell()
    {
        const QByteArray line = m_screen->property("unlocked").toBool() ? "unlocked\n" : "locked\n";
        if (write(m_descriptor, line.constData(), size_t(line.size())) != line.size())
            m_notifier.setEnabled(false);
    }

    void read()
    {
        char buffer[256];
        const ssize_t count = ::read(m_descriptor, buffer, sizeof buffer);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (count <= 0 || m_input.size() > 4096)
            return m_notifier.setEnabled(false);
        m_input.append(buffer, int(count));
        for (int end = m_input.indexOf('\n'); end >= 0; end = m_input.indexOf('\n')) {
            const QByteArray line = m_input.left(end);
            m_input.remove(0, end + 1);
            if (line.startsWith("enter "))
                QMetaObject::invokeMethod(m_screen, "enter", Q_ARG(QVariant, QString::fromUtf8(line.mid(6))));
        }
    }

private:
    const int m_descriptor;
    QQuickWindow *const m_screen;
    QSocketNotifier m_notifier;
    QByteArray m_input;
};

// Waits until the screen says that it is settled, and for the frame that shows it. Not every platform can read a window
// back, but an item can be drawn into a picture on all of them.
void drawInto(const QString &file, QQuickWindow *screen)
{
    const auto draw = [file, screen] {
        if (!screen->property("settled").toBool())
            return;
        QObject::disconnect(screen, &QQuickWindow::frameSwapped, nullptr, nullptr);
        // Const, for the overload of saveToFile() that is not deprecated.
        const QSharedPointer<const QQuickItemGrabResult> picture = screen->contentItem()->grabToImage();
        QObject::connect(picture.data(), &QQuickItemGrabResult::ready, screen, [file, picture] {
            if (picture->saveToFile(file))
                return QCoreApplication::quit();
            fprintf(stderr, "%s cannot be written\n", qPrintable(file));
            QCoreApplication::exit(3);
        });
    };
    QObject::connect(screen, &QQuickWindow::frameSwapped, screen, draw, Qt::QueuedConnection);
    QTimer::singleShot(30000, screen, [] {
        fputs("The screen does not settle\n", stderr);
        QCoreApplication::exit(3);
    });
}

} // namespace

int main(int argc, char **argv)
{
    // Looked at before anything is opened here: what is no descriptor yet may become one of Qt's.
    bool isProbed = false;
    const int descriptor = qEnvironmentVariableIntValue("AUTHD_HOSTCHECK_FD", &isProbed);
    isProbed = isProbed && fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0;

    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    QGuiApplication application(argc, argv);
    application.setApplicationName(QStringLiteral("auth-" SCREEN));

    QCommandLineParser parser;
    const QCommandLineOption theme(QStringLiteral("theme"), QStringLiteral("light or dark (default: light)."),
                                   QStringLiteral("theme"), QStringLiteral("light"));
    const QCommandLineOption size(QStringLiteral("size"), QStringLiteral("Size of the window (default: 360x720)."),
                                  QStringLiteral("WxH"), QStringLiteral("360x720"));
    const QCommandLineOption user(QStringLiteral("user"), QStringLiteral("Whose screen it is (default: one's own)."),
                                  QStringLiteral("uid"), QString::number(getuid()));
    const QCommandLineOption file(QStringLiteral("screenshot"), QStringLiteral("Draw the screen into a file, and end."),
                                  QStringLiteral("file"));
    parser.addOptions({theme, size, user, file});
    parser.addHelpOption();
    parser.process(application);

    const QStringList extent = parser.value(size).split(QLatin1Char('x'));
    const QSize wanted = extent.size() == 2 ? QSize(extent.at(0).toInt(), extent.at(1).toInt()) : QSize();
    bool isUser = false;
    const uint uid = parser.value(user).toUInt(&isUser);
    const bool dark = parser.value(theme) == QLatin1String("dark");
    if (wanted.isEmpty() || !isUser || (!dark && parser.value(theme) != QLatin1String("light"))
        || !parser.positionalArguments().isEmpty()) {
        fputs("Wrong usage; see --help\n", stderr);
        return 2;
    }

    QQmlApplicationEngine engine;
    engine.setInitialProperties({
        {QStringLiteral("dark"), dark},
        {QStringLiteral("user"), uid},
        {QStringLiteral("width"), wanted.width()},
        {QStringLiteral("height"), wanted.height()},
    });
    engine.load(QUrl(QStringLiteral("qrc:/" SCREEN "/Main.qml")));
    auto *screen = qobject_cast<QQuickWindow *>(engine.rootObjects().value(0));
    if (!screen)
        return 2;

    if (isProbed)
        new Probe(descriptor, screen);
    if (parser.isSet(file))
        drawInto(parser.value(file), screen);
    return QCoreApplication::exec();
}

#include "main.moc"
