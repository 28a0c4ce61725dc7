import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Vantora.Auth 1.0
import "../style"

Sheet {
    id: screen

    property alias user: lock.user
    property alias patience: lock.patience
    property alias retryPause: lock.retryPause
    property alias lookPause: lock.lookPause
    property alias lookPatience: lock.lookPatience
    property alias unlocked: lock.unlocked
    // Whether the daemon has told a state, and the screen shows it.
    property bool settled: false

    property string factor: "code"
    property bool choosing: false
    readonly property bool offersEntry: lock.deviceState === AuthDevlockClient.Locked
    readonly property bool wide: width > height
    readonly property bool low: wide && height < 490
    readonly property real unit: Math.max(0.7, Math.min(width / (wide ? 640 : 360), height / (wide ? 490 : 640), 1.4))

    // A code from elsewhere than the keyboard and the keypad, with which it goes the same way.
    function enter(code) { entry.enter(code) }

    function choose(name) {
        choosing = false;
        factor = name;
        entry.focusField();
    }

    // Once the page of the state is there.
    function show() {
        if (lock.deviceState !== AuthDevlockClient.Undefined)
            settled = true;
        // The focus does not go to the button that locks: a second Return would undo the first.
        if (offersEntry)
            entry.focusField();
        else
            forceActiveFocus();
    }

    padding: Theme.gap * unit

    Lock {
        id: lock

        objectName: "lock"
        onRefused: entry.refuse(reason)
        onDeviceStateChanged: {
            screen.choosing = false;
            entry.clear();
            if (deviceState === AuthDevlockClient.Unlocked)
                screen.factor = "code";
            Qt.callLater(screen.show);
        }
    }

    // Who has chosen another factor may have gone, too.
    Timer {
        interval: entry.memory
        running: screen.factor !== "code" && !screen.choosing && !lock.busy && !entry.secret
        onTriggered: screen.choose("code")
    }

    GridLayout {
        anchors.fill: parent
        columns: screen.wide ? 2 : 1
        columnSpacing: Theme.gap
        rowSpacing: 0

        Clock {
            objectName: "clock"
            unit: screen.unit
            Layout.fillWidth: true
            Layout.fillHeight: true
            // Both columns are as wide as each other.
            Layout.preferredWidth: 1
            Layout.minimumHeight: implicitHeight
        }

        Item {
            implicitHeight: 452 * screen.unit
            Layout.fillWidth: true
            Layout.preferredWidth: 1
            Layout.maximumHeight: implicitHeight
            Layout.fillHeight: true

            EntryPanel {
                id: entry

                objectName: "entry"
                anchors.fill: parent
                visible: screen.offersEntry && !screen.choosing
                enabled: visible
                unit: screen.unit
                low: screen.low
                factor: screen.factor
                busy: lock.busy
                overdue: lock.overdue
                onSubmitted: lock.unlock(screen.factor, secret)
                onGivenUp: lock.giveUp()
                onChooserWanted: {
                    clear();
                    screen.choosing = true;
                }
            }

            // Made when it is wanted: it asks the daemon, which may take long.
            Loader {
                anchors.fill: parent
                active: screen.choosing
                sourceComponent: FactorChooser {
                    objectName: "chooser"
                    unit: screen.unit
                    user: screen.user
                    current: screen.factor
                    onChosen: screen.choose(name)
                }
            }

            Notice {
                objectName: "notice"
                anchors.fill: parent
                visible: !screen.offersEntry && !screen.unlocked
                unit: screen.unit
                busy: lock.deviceState === AuthDevlockClient.Undefined
                title: {
                    switch (lock.deviceState) {
                    case AuthDevlockClient.Undefined:
                        return qsTr("One moment");
                    case AuthDevlockClient.CodeEntryLockout:
                        return qsTr("Too many wrong codes");
                    }
                    return qsTr("This device is locked");
                }
                text: {
                    switch (lock.deviceState) {
                    case AuthDevlockClient.Undefined:
                        return qsTr("Waiting for the authentication service. The device stays locked meanwhile.");
                    case AuthDevlockClient.CodeEntryLockout:
                        return qsTr("Please wait. You can try again in a while, when this message has gone.");
                    case AuthDevlockClient.ManagerLockout:
                        return qsTr("The manager of this device has locked it. Please ask them for help.");
                    case AuthDevlockClient.SecurityUi:
                        return qsTr("The security settings are in use. Entry is possible when they are closed.");
                    }
                    return qsTr("Entry is not possible at present.");
                }
            }

            Notice {
                objectName: "unlockedPage"
                anchors.fill: parent
                visible: screen.unlocked
                unit: screen.unit
                open: true
                title: qsTr("Unlocked")
                text: lock.lockingFailed ? qsTr("The device could not be locked. Please try again.")
                                         : qsTr("The device is in use.")
                action: qsTr("Lock now")
                onTriggered: lock.lockNow()
            }
        }
    }
}
