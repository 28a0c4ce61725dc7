import QtQuick 2.15
import Vantora.Auth.Testing 1.0
import ".."

// What the functions do where no stand-in answers: they throw.
PatientTestCase {
    property string reason

    property StandIn daemon: StandIn {}

    function test_errors_data() {
        return [
            { tag: "request", action: () => daemon.lockState(), request: '{"do":"state"}' },
            // The first of its requests.
            { tag: "reset", action: () => daemon.reset(), request: '{"do":"stop"}' },
            { tag: "waiting", action: () => daemon.waitForCalls("GetState", 1, 1),
              request: '{"count":1,"do":"wait-calls","method":"GetState","timeout":1}' },
        ];
    }

    function test_errors(data) {
        compare(errorOf(data.action).message, "StandIn: " + reason + " (" + data.request + ")");
    }
}
