.pragma library

// What a factor is called on the screen. Its title is the id of a translation where the host has installed none, with
// question marks for letters that are not Latin.
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

// The rows of a FactorListModel. Scripts reach its roles by their numbers, in the order of the names below.
function rows(model) {
    const names = ["name", "title", "enabled", "disabled", "isUnlock"];
    const result = [];
    for (let row = 0; row < model.rowCount(); ++row) {
        const entry = {};
        names.forEach((name, role) => entry[name] = model.data(model.index(row, 0), Qt.UserRole + role));
        result.push(entry);
    }
    return result;
}
