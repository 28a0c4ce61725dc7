// Runs tests written in QML, like qmltestrunner. It fails on QML's own warnings, and gives the tests eyes and ears.

#include <QtCore/QMetaEnum>
#include <QtGui/QAccessible>
#include <QtGui/QFontMetricsF>
#include <QtGui/QImage>
#include <QtQml/QQmlEngine>
#include <QtQuick/QQuickItem>
#include <QtQuick/QQuickItemGrabResult>
#include <QtQuickTest/quicktest.h>
#include <QtTest/QSignalSpy>

namespace {

int warnings = 0;

/** What is on the screen, and what is told of it. The platform without a display cannot read its windows back, but it can draw items. */
class Pictures : public QObject
{
    Q_OBJECT

public:
    /** How many pixels of @p item, as @p scene shows it, have the colour @p ink or nearly so. */
    Q_INVOKABLE int ink(QQuickItem *scene, QQuickItem *item, const QColor &ink)
    {
        const QImage picture = drawn(scene);
        const QRect place = item->mapRectToItem(scene, item->boundingRect()).toAlignedRect() & picture.rect();
        int count = 0;
        for (int y = place.top(); y <= place.bottom(); ++y) {
            for (int x = place.left(); x <= place.right(); ++x)
                count += isNear(picture.pixelColor(x, y), ink);
        }
        return count;
    }

    /** Whether all of @p item lies inside @p scene. */
    Q_INVOKABLE bool isInside(QQuickItem *scene, QQuickItem *item)
    {
        // Half a pixel comes and goes when sizes are rounded.
        return scene->boundingRect()
            .adjusted(-0.5, -0.5, 0.5, 0.5)
            .contains(item->mapRectToItem(scene, item->boundingRect()));
    }

    Q_INVOKABLE bool save(QQuickItem *scene, const QString &file)
    {
        return drawn(scene).save(file);
    }

    /** Whether @p text shows each of its letters: of markup, or of a mnemonic, it would show fewer. */
    Q_INVOKABLE bool isPlain(QQuickItem *text)
    {
        const QFontMetricsF metrics(text->property("font").value<QFont>());
        const qreal room =
            text->implicitWidth() - text->property("leftPadding").toReal() - text->property("rightPadding").toReal();
        return qAbs(room - metrics.horizontalAdvance(text->property("text").toString())) < 2;
    }

    // What assistive technology gets. The controls answer it themselves, whatever the attached Accessible says.

    /** The name of the role, or nothing if assistive technology does not get to know @p item. */
    Q_INVOKABLE QString role(QQuickItem *item)
    {
        const QAccessibleInterface *told = interfaceOf(item);
        return told ? QString::fromLatin1(QMetaEnum::fromType<QAccessible::Role>().valueToKey(told->role()))
                    : QString();
    }

    Q_INVOKABLE QString accessibleName(QQuickItem *item)
    {
        const QAccessibleInterface *told = interfaceOf(item);
        return told ? told->text(QAccessible::Name) : QString();
    }

    Q_INVOKABLE QString accessibleDescription(QQuickItem *item)
    {
        const QAccessibleInterface *told = interfaceOf(item);
        return told ? told->text(QAccessible::Description) : QString();
    }

    Q_INVOKABLE bool isToldChecked(QQuickItem *item)
    {
        const QAccessibleInterface *told = interfaceOf(item);
        return told && told->state().checked;
    }

private:
    static QAccessibleInterface *interfaceOf(QQuickItem *item)
    {
        QAccessible::setActive(true);
        return QAccessible::queryAccessibleInterface(item);
    }

    static QImage drawn(QQuickItem *scene)
    {
        const auto grab = scene->grabToImage();
        if (!grab)
            qFatal("The scene is not shown");
        QSignalSpy ready(grab.data(), &QQuickItemGrabResult::ready);
        if (!ready.wait(60000))
            qFatal("The scene is not drawn");
        return grab->image();
    }

    static bool isNear(const QColor &one, const QColor &other)
    {
        const int tolerance = 24;
        return abs(one.red() - other.red()) < tolerance && abs(one.green() - other.green()) < tolerance
            && abs(one.blue() - other.blue()) < tolerance;
    }
};

class Setup : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void qmlEngineAvailable(QQmlEngine *engine)
    {
        connect(engine, &QQmlEngine::warnings, [](const QList<QQmlError> &list) { warnings += list.size(); });
        qmlRegisterSingletonType<Pictures>("Vantora.Tests", 1, 0, "Pictures",
                                           [](QQmlEngine *, QJSEngine *) -> QObject * { return new Pictures; });
    }
};

} // namespace

int main(int argc, char **argv)
{
    QTEST_SET_MAIN_SOURCE_PATH
    Setup setup;
    const int failures = quick_test_main_with_setup(argc, argv, "quick", nullptr, &setup);
    if (warnings)
        fprintf(stderr, "QML warned %d times\n", warnings);
    return failures + warnings;
}

#include "runner.moc"
