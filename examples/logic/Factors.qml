pragma Singleton
import QtQuick 2.15
import Vantora.Auth 1.0

// What all screens do with a user's factors.
QtObject {
    // What a factor is called on the screen. Its title is the id of a translation where the host has installed none,
    // with question marks for letters that are not Latin.
    function title(name, title) {
        if (title && !title.startsWith("authd-factor-"))
            return title;
        switch (name) {
        case "code":
            return qsTr("Code");
        case "smartcard":
            return qsTr("Smart card");
        case "sudis":
            return qsTr("Sudis");
        }
        return name;
    }

    // Selects a user, and reads what the daemon has about them. A user who is selected already would not be read again.
    function read(user) {
        AuthSettingsClient.uid = 0;
        AuthSettingsClient.uid = user;
    }

    // The rows of AuthSettingsClient.factors. Scripts reach their roles by numbers alone, which FactorListModel gives
    // them in this order.
    function rows() {
        const names = ["name", "title", "enabled", "disabled", "isUnlock"];
        const model = AuthSettingsClient.factors;
        const result = [];
        for (let row = 0; row < model.rowCount(); ++row) {
            const entry = {};
            names.forEach((name, role) => entry[name] = model.data(model.index(row, 0), Qt.UserRole + role));
            result.push(entry);
        }
        return result;
    }

    // Those of the rows that a user has to sign in with.
    function chosenForLogin(rows) { return rows.filter(row => !row.isUnlock && row.enabled && !row.disabled) }
}
