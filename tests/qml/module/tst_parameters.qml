import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import ".."

// What parameters written in JavaScript become on the bus.
PatientTestCase {
    id: test

    property AuthClient client
    readonly property url address: "http://localhost"

    signal asked(string service, var params)

    name: "parameters"

    StandIn { id: daemon }

    Component {
        id: clientComponent
        AuthClient {}
    }

    function initTestCase() {
        daemon.reset();
        test.client = clientComponent.createObject(test);
    }

    function init() { daemon.clearCalls() }

    // How the daemon received what ask() sends.
    function received(method, ask) {
        daemon.clearCalls();
        ask();
        const call = daemon.waitForCalls(method, 1, 60000)[0];
        compare(call.signature, "sa{sv}");
        return call.args;
    }

    function carries(client, params, text) {
        const expected = "('login', {" + text + (text ? ", " : "") + "'challenge': <'c'>})";
        compare(received("Authenticate", () => client.authenticate("login", params)), expected);
        compare(received("ChangeAuthData", () => client.changeAuthData("login", params)), expected);
    }

    // Nothing has been sent before this call either.
    function sendsNothing() {
        carries(test.client, { challenge: "c" }, "");
        compare(daemon.calls("Authenticate").length, 0);
        compare(daemon.calls("ChangeAuthData").length, 1);
    }

    function bytes(...numbers) { return new Uint8Array(numbers) }

    function nested(levels, inside) {
        let value = inside;
        for (let i = 0; i < levels; ++i)
            value = { a: value };
        return value;
    }

    function test_carried_data() {
        const holder = { list: [1] };
        return [
            { tag: "true", value: true, text: "true" },
            { tag: "string", value: "вход 🔒", text: "'вход 🔒'" },
            { tag: "empty string", value: "", text: "''" },
            { tag: "0", value: 0, text: "0" },
            { tag: "-0", value: -0, text: "0" },
            { tag: "computed", value: 2.5 * 2, text: "5" },
            { tag: "2^31-1", value: 2147483647, text: "2147483647" },
            { tag: "-2^31", value: -2147483648, text: "-2147483648" },
            { tag: "2^31", value: 2147483648, text: "int64 2147483648" },
            { tag: "-2^31-1", value: -2147483649, text: "int64 -2147483649" },
            { tag: "2^53", value: 9007199254740992, text: "int64 9007199254740992" },
            { tag: "-2^53", value: -9007199254740992, text: "int64 -9007199254740992" },
            { tag: "2^53+2", value: 9007199254740994, text: "9007199254740994.0" },
            { tag: "1.5", value: 1.5, text: "1.5" },
            { tag: "NaN", value: NaN, text: "nan" },
            { tag: "Infinity", value: -Infinity, text: "-inf" },
            { tag: "Uint8Array", value: bytes(0, 1, 255), text: "[byte 0x00, 0x01, 0xff]" },
            { tag: "empty Uint8Array", value: bytes(), text: "@ay []" },
            { tag: "view", value: bytes(1, 2, 3, 4).subarray(1, 3), text: "[byte 0x02, 0x03]" },
            { tag: "view of a buffer", value: new Uint8Array(bytes(1, 2, 3, 4).buffer, 3), text: "[byte 0x04]" },
            { tag: "ArrayBuffer", value: bytes(7, 8).buffer, text: "[byte 0x07, 0x08]" },
            { tag: "empty ArrayBuffer", value: new ArrayBuffer(0), text: "@ay []" },
            { tag: "strings", value: ["a", "b"], text: "['a', 'b']" },
            { tag: "one string", value: [""], text: "['']" },
            { tag: "mixed list", value: ["a", 1, true], text: "[<'a'>, <1>, <true>]" },
            { tag: "empty list", value: [], text: "@av []" },
            { tag: "list of lists", value: [["a"], [], [2147483648]],
                text: "[<['a']>, <@av []>, <[<int64 2147483648>]>]" },
            { tag: "list of bytes", value: [bytes(1)], text: "[<[byte 0x01]>]" },
            { tag: "map", value: { b: bytes(1), a: ["x"], c: 3 },
                text: "{'a': <['x']>, 'b': <[byte 0x01]>, 'c': <3>}" },
            { tag: "empty map", value: {}, text: "@a{sv} {}" },
            { tag: "keys", value: { 7: 1, "__proto__x": 2, "": 3 }, text: "{'': <3>, '7': <1>, '__proto__x': <2>}" },
            { tag: "JSON", value: JSON.parse('{"a":[{"b":4}]}'), text: "{'a': <[<{'b': <4>}>]>}" },
            { tag: "no prototype", value: Object.assign(Object.create(null), { a: 1 }), text: "{'a': <1>}" },
            { tag: "twice the same", value: [holder, holder], text: "[<{'list': <[<1>]>}>, <{'list': <[<1>]>}>]" },
            { tag: "getter", value: { get a() { return bytes(9); } }, text: "{'a': <[byte 0x09]>}" },
            { tag: "symbol as a key", value: { [Symbol("s")]: 1, a: 2 }, text: "{'a': <2>}" },
            { tag: "not enumerable", value: Object.defineProperty({ a: 1 }, "b", { value: 2 }), text: "{'a': <1>}" },
            { tag: "19 maps", value: nested(17, {}), text: "{'a': <".repeat(17) + "@a{sv} {}" + ">}".repeat(17) },
            { tag: "C++ strings", value: AuthSettingsClient.unlockFactors, text: "@as []" },
            { tag: "C++ bytes", value: AuthSettingsClient.token, text: "@ay []" },
            { tag: "prepared", value: AuthParameters.from({ a: bytes(5) }), text: "{'a': <[byte 0x05]>}" },
        ];
    }

    function test_carried(row) {
        const params = { a: row.value, challenge: "c" };
        carries(test.client, params, "'a': <" + row.text + ">");
        carries(AuthSettingsClient, AuthParameters.from(params), "'a': <" + row.text + ">");
        carries(test.client, AuthParameters.from(params), "'a': <" + row.text + ">");
    }

    function test_challengeIsAdded() {
        const call = received("Authenticate", () => test.client.authenticate("login", {}));
        verify(/^\('login', \{'challenge': <\[byte 0x.*\]>\}\)$/.test(call), call);
    }

    function test_refused_data() {
        const nothing = "cannot be sent over D-Bus";
        const cycle = { list: [1, {}] };
        cycle.list[1].up = cycle;
        const own = [];
        own.push(own);
        const sparse = [1, 2];
        sparse[4000000000] = 3;
        class Secret { constructor() { this.code = bytes(1); } }
        return [
            { tag: "undefined", value: undefined, type: "undefined" },
            { tag: "null", value: null, type: "null" },
            { tag: "function", value: () => 1, type: "function" },
            { tag: "symbol", value: Symbol("s"), type: "symbol" },
            { tag: "Date", value: new Date(), type: "Date" },
            { tag: "RegExp", value: /x/, type: "RegExp" },
            { tag: "Error", value: new Error("s3cr3t"), type: "Error" },
            { tag: "Map", value: new Map([["a", 1]]), type: "Map" },
            { tag: "Set", value: new Set(["a"]), type: "Set" },
            { tag: "Promise", value: Promise.resolve(1), type: "Promise" },
            { tag: "Proxy", value: new Proxy({ a: 1 }, {}), type: "ProxyObject" },
            { tag: "Proxy of a list", value: new Proxy(["a"], {}), type: "ProxyObject" },
            { tag: "Number object", value: new Number(5), type: "Number" },
            { tag: "instance", value: new Secret(), type: "class instance" },
            { tag: "QObject", value: test, type: "QObject" },
            { tag: "point", value: Qt.point(1, 2), type: "class instance" },
            { tag: "Int8Array", value: new Int8Array(2), type: "Int8Array" },
            { tag: "Uint8ClampedArray", value: new Uint8ClampedArray(2), type: "Uint8ClampedArray" },
            { tag: "Uint16Array", value: new Uint16Array(2), type: "Uint16Array" },
            { tag: "Float64Array", value: new Float64Array(2), type: "Float64Array" },
            { tag: "DataView", value: new DataView(new ArrayBuffer(2)), type: "DataView" },
            { tag: "SharedArrayBuffer", value: new SharedArrayBuffer(2), type: "SharedArrayBuffer" },
            { tag: "member", value: { list: [1, {}, { name: undefined }] },
                text: "a.list[2].name of type undefined " + nothing },
            { tag: "element", value: [[], [null]], text: "a[1][0] of type null " + nothing },
            { tag: "among strings", value: ["a", undefined], text: "a[1] of type undefined " + nothing },
            { tag: "hole", value: ["a", , "b"], text: "a[1] of type undefined " + nothing },
            { tag: "sparse list", value: sparse, text: "a[2] of type undefined " + nothing },
            { tag: "symbol inside", value: [{ s: Symbol("s") }], text: "a[0].s of type symbol " + nothing },
            { tag: "getter that throws", value: [{ get b() { throw new Error("s3cr3t"); } }],
                  text: "a[0] of type Object throws an error when it is read" },
            { tag: "element that throws",
                value: Object.defineProperty([1], "0", { get: () => { throw new Error("s3cr3t"); } }),
                  text: "a[0] of type undefined " + nothing },
            { tag: "false tag", value: { [Symbol.toStringTag]: "Uint8Array" }, type: "Uint8Array" },
            { tag: "false buffer", value: { [Symbol.toStringTag]: "ArrayBuffer" }, type: "ArrayBuffer" },
            { tag: "cycle", value: cycle,
                text: "a.list[1].up of type Object contains itself, which D-Bus cannot carry" },
            { tag: "list in itself", value: own, text: "a[0] of type Array contains itself, which D-Bus cannot carry" },
            { tag: "1000 maps", value: nested(1000, {}),
                  text: "a" + ".a".repeat(31) + " of type Object is nested too deeply for D-Bus" },
        ];
    }

    function test_refused(row) {
        const text = row.text || "a of type " + row.type + " cannot be sent over D-Bus";
        const params = { a: row.value, challenge: "c" };
        test.client.dropAuthentication();
        ignoreWarning("authenticate failed: \"" + text + "\"");
        test.client.authenticate("login", params);
        ignoreWarning("changeAuthData failed: \"" + text + "\"");
        test.client.changeAuthData("login", params);
        verify(!test.client.progress);

        compare(String(errorOf(() => AuthSettingsClient.authenticate("login", AuthParameters.from(params)))),
                "TypeError: " + text);
        sendsNothing();
    }

    // The library's own.
    function test_refusedByTheLibrary_data() {
        return [
            { tag: "NUL", value: "a\u0000b",
                text: "a of type QString holds a NUL character, which D-Bus cannot carry" },
            { tag: "NUL in a list", value: ["a", "\u0000"],
                text: "a[1] of type QString holds a NUL character, which D-Bus cannot carry" },
            { tag: "half a character", value: "\ud83d",
                text: "a of type QString holds half a surrogate pair, which D-Bus cannot carry" },
            { tag: "url", value: test.address, text: "a of type QUrl cannot be sent over D-Bus" },
            { tag: "20 maps", value: nested(20, {}),
                text: "a" + ".a".repeat(20) + " of type QVariantMap is nested too deeply for D-Bus" },
        ];
    }

    function test_refusedByTheLibrary(row) {
        const params = { a: row.value, challenge: "c" };
        for (const client of [test.client, AuthSettingsClient]) {
            ignoreWarning("authenticate failed: \"" + row.text + "\"");
            client.authenticate("login", AuthParameters.from(params));
        }
        ignoreWarning("authenticate failed: \"" + row.text + "\"");
        test.client.authenticate("login", params);
        sendsNothing();
    }

    function test_noMap_data() {
        return [
            { tag: "undefined", value: undefined, type: "undefined" },
            { tag: "null", value: null, type: "null" },
            { tag: "number", value: 5, type: "number" },
            { tag: "string", value: "x", type: "string" },
            { tag: "list", value: ["x"], type: "Array" },
            { tag: "bytes", value: bytes(1), type: "Uint8Array" },
            { tag: "client", value: test.client, type: "QObject" },
            { tag: "function", value: () => ({}), type: "function" },
        ];
    }

    function test_noMap(row) {
        const text = "params of type " + row.type + " cannot be sent over D-Bus";
        ignoreWarning("authenticate failed: \"" + text + "\"");
        test.client.authenticate("login", row.value);
        compare(String(errorOf(() => AuthParameters.from(row.value))), "TypeError: " + text);
        sendsNothing();
    }

    function test_tooFewArguments() {
        compare(String(errorOf(() => test.client.authenticate("login"))), "Error: Insufficient arguments");
        sendsNothing();
    }

    // The ways to call without parentheses.
    function test_calledByOthers() {
        const params = { a: bytes(1), challenge: "c" };
        const expected = "('login', {'a': <[byte 0x01]>, 'challenge': <'c'>})";
        compare(received("Authenticate", () => Qt.callLater(test.client.authenticate, "login", params)), expected);
        asked.connect(test.client.authenticate);
        compare(received("Authenticate", () => asked("login", params)), expected);
        asked.disconnect(test.client.authenticate);
        const authenticate = test.client.authenticate;
        compare(received("Authenticate", () => authenticate("login", params)), expected);
    }

    // Of an object that C++ has made, QML calls what C++ has: these are the conversions of QML 5.15.
    function test_objectOfCpp_data() {
        return [
            { tag: "Uint8Array", value: bytes(7, 8), text: "{'0': <7>, '1': <8>}" },
            { tag: "ArrayBuffer", value: bytes(7, 8).buffer, text: "[byte 0x07, 0x08]" },
            { tag: "whole view's buffer", value: bytes(7, 8).subarray(1).buffer, text: "[byte 0x07, 0x08]" },
            { tag: "strings", value: ["a", "b"], text: "[<'a'>, <'b'>]" },
            { tag: "empty list", value: [], text: "@av []" },
            { tag: "int", value: 5, text: "5" },
            { tag: "computed", value: 2.5 * 2, text: "5.0" },
            { tag: "2^31", value: 2147483648, text: "2147483648.0" },
            { tag: "Date", value: new Date(2026, 10, 21, 8, 15), text: "((2026, 11, 21), (8, 15, 0, 0), 0)" },
            { tag: "Map", value: new Map([["a", 1]]), text: "@a{sv} {}" },
            { tag: "cycle", value: (function () { const a = {}; a.a = a; return a; })(), text: "{'a': <@a{sv} {}>}" },
            { tag: "point", value: Qt.point(1, 2), text: "(1.0, 2.0)" },
            { tag: "C++ strings", value: AuthSettingsClient.unlockFactors, text: "@as []" },
        ];
    }

    function test_objectOfCpp(row) {
        carries(AuthSettingsClient, { a: row.value, challenge: "c" }, "'a': <" + row.text + ">");
    }

    function test_objectOfCppRefuses_data() {
        return [
            { tag: "undefined", value: { list: [undefined] }, text: "a.list[0] of type Invalid" },
            { tag: "null", value: { list: [null] }, text: "a.list[0] of type std::nullptr_t" },
            { tag: "function", value: () => 1, text: "a of type Invalid" },
            { tag: "hole", value: [1, , 2], text: "a[1] of type Invalid" },
            { tag: "QObject", value: test, text: "a of type QObject*" },
            { tag: "RegExp", value: /x/, text: "a of type QRegularExpression" },
            { tag: "prepared", value: AuthParameters.from({}), text: "a of type AuthParameterMap" },
            { tag: "getter that throws", value: { get b() { throw new Error("thrown"); } }, text: "a.b of type Invalid",
                error: "Error: thrown" },
        ];
    }

    function test_objectOfCppRefuses(row) {
        ignoreWarning("authenticate failed: \"" + row.text + " cannot be sent over D-Bus\"");
        let error;
        try {
            AuthSettingsClient.authenticate("login", { a: row.value });
        } catch (e) {
            error = String(e);
        }
        compare(error, row.error);
        sendsNothing();
    }

    // Nothing at all is sent as an empty map, which the daemon does not refuse as such. QML 5.15 lists the callers, too.
    function test_objectOfCppTakesNoMap_data() {
        return [{ tag: "undefined", value: undefined }, { tag: "null", value: null }, { tag: "number", value: 5 }];
    }

    function test_objectOfCppTakesNoMap(row) {
        for (const line of ["Could not convert argument 1 at",
                            "Passing incompatible arguments to C++ functions from JavaScript is dangerous and deprecated.",
                            "This will throw a JavaScript TypeError in future releases of Qt!"])
            ignoreWarning("\"" + line + "\"");
        const call = received("Authenticate", () => AuthSettingsClient.authenticate("login", row.value));
        verify(/^\('login', \{'challenge': <\[byte 0x.*\]>\}\)$/.test(call), call);
    }

    // The preparation is a value like any other.
    function test_preparedParametersAreKept() {
        const given = { a: bytes(1), challenge: "c" };
        const prepared = AuthParameters.from(given);
        given.a[0] = 2;
        given.b = 3;
        for (let i = 0; i < 3; ++i)
            carries(AuthSettingsClient, prepared, "'a': <[byte 0x01]>");
    }
}
