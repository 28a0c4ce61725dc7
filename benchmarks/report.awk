# Reads figures (lines of name, unit and value) and prints them as tables; the status is 1 when one is missing or more
# than its bound. Run by benchmarks/run. Variables:
#   json  where the figures go as JSON, too, if anywhere
#   list  prints what figures are wanted instead, and which of them have a bound, at which they still pass beside ones

{ figures[$1, $2] = $3; write($1, $2, $3) }

END {
    calls()
    toolkits()
    settings()
    construction()
    frozen()
    rest()
    if (json)
        print "[\n" elements "\n]" >json
    exit failed
}

function calls()
{
    title("Calls: a bare QDBusInterface, and the library on the same connection")
    header("Call|Instructions, bare|library|ratio (at most)|Allocations, bare|library|more (at most)|µs, bare|library")
    # Beyond a bare call: keys that are put together, an allocation each; the copy of a map, to which the challenge is
    # added, one and one for each entry; the question to the bus before setState().
    call("factorMethodWait", "blocking", 1.02, 0)
    call("setLocked", "blocking", 1.02, 0)
    call("lastLoginDate", "blocking", 1.02, 1)
    call("setIsMultiFactorable", "blocking", 1.02, 1)
    call("setState", "blocking", 2.05, 35)
    call("factorMethod", "asynchronous", 1.03, 0)
    call("authenticate", "asynchronous", 1.03, 3)
    call("changeAuthData", "asynchronous", 1.03, 3)
    call("unlockIfNeeded", "asynchronous", 1.03, 0)
}

function call(name, kind, ratioBound, moreBound,   bare, library)
{
    bare = name ".bare"
    library = name ".library"
    row("`" name "()`, " kind "|" number(bare, "instructions") "|" number(library, "instructions") \
        "|" ratio(library, bare, "instructions", ratioBound) "|" number(bare, "allocations") \
        "|" number(library, "allocations") "|" more(library, bare, "allocations", moreBound) \
        "|" number(bare, "µs") "|" number(library, "µs"))
}

function toolkits(   names, count, i)
{
    title("One factor method call, by library")
    header("Client|Blocking: instructions|allocations|µs|Asynchronous: instructions|allocations|µs")
    toolkit("libdbus", "blocking.libdbus", "asynchronous.libdbus")
    if (list || ("blocking.sd-bus", "µs") in figures)
        toolkit("sd-bus", "blocking.sd-bus", "asynchronous.sd-bus")
    toolkit("GDBus", "blocking.GDBus", "asynchronous.GDBus")
    toolkit("Qt D-Bus", "factorMethodWait.bare", "factorMethod.bare")
    toolkit("libauth-client, on Qt D-Bus", "factorMethodWait.library", "factorMethod.library")
}

function toolkit(name, blocking, asynchronous)
{
    row(name "|" number(blocking, "instructions") "|" number(blocking, "allocations") "|" number(blocking, "µs") \
        "|" number(asynchronous, "instructions") "|" number(asynchronous, "allocations") "|" number(asynchronous, "µs"))
}

function settings()
{
    title("A settings page: instructions of the host's thread without the bus calls, by how many factors there are")
    header("|5|50|500|5,000|5,000 : 500 (at most)|Allocations in all for 5,000|:500 (at most)|ms for 5,000")
    grows("construction", "Construction")
    grows("switch", "Switch to a user, all chosen")
    grows("switch-disabled", "The same, half of them disabled")
    grows("view", "A view's reading of all rows")
    grows("toggle", "Toggle")
    grows("announcements", "Announcement for each service of two")
}

function grows(name, text)
{
    row(text "|" number(name ".5", "instructions") "|" number(name ".50", "instructions") \
        "|" number(name ".500", "instructions") "|" number(name ".5000", "instructions") \
        "|" ratio(name ".5000", name ".500", "instructions", 11) "|" number(name ".5000", "allocations") \
        "|" ratio(name ".5000", name ".500", "allocations", 11) "|" sprintf("%.1f", figure(name ".5000", "µs") / 1000))
}

function construction()
{
    title("Construction, until the device-lock state is known")
    header("|Instructions, bare objects|library|ratio (at most)|Calls of the daemon (at most)|of the bus (at most)")
    made("AuthDevlockClient", 1.06, 2, 6)
    made("AuthClient", 1.06, 4, 6)
    made("AuthSettingsClient", 0, 8, 6)
}

function made(name, ratioBound, daemonBound, busBound,   instructions, library)
{
    library = name ".library"
    instructions = " | | "
    if (ratioBound)
        instructions = compared(library, name ".bare", "instructions", ratioBound)
    row("`" name "`|" instructions "|" bounded(library, "daemon-calls", daemonBound) \
        "|" bounded(library, "bus-calls", busBound))
}

function frozen()
{
    title("Asynchronous calls while the daemon and the bus are stopped")
    header("Call|µs until it returns|asks beside itself, and waits (at most)")
    returns("authenticate")
    returns("changeAuthData")
    returns("unlockIfNeeded")
    returns("factorMethod")
    returns("setOption")
    returns("doAction")
}

function returns(name)
{
    row("`" name "()`|" number("frozen." name, "µs") "|" bounded("frozen." name, "waits", 0))
}

function rest()
{
    title("What else a host pays")
    header("|Beside|Library|ratio (at most)")
    row("Check of a map of four, instructions, beside the call|" \
        compared("check.4", "factorMethodWait.bare", "instructions", 0.01))
    row("Check of a map of 100, beside one of 10|" compared("check.100", "check.10", "instructions", 10.1))
    row("Check of a map of 1,000, beside one of 100|" compared("check.1000", "check.100", "instructions", 10.1))
    row("Process that does nothing, instructions, beside one with Qt D-Bus alone|" \
        compared("linked.library", "linked.bare", "instructions", 1.2))
    row("Static initialisers, instructions||" bounded("initialisers", "instructions", 230000) "|")
    row("Static initialisers||" bounded("initialisers", "entries", 10) "|")
    row("Relocations||" bounded("relocations", "entries", 830) "|")
    row("Relocations by name||" bounded("named-relocations", "entries", 650) "|")
    row("Size without debug information, bytes||" bounded("size", "bytes", 340000) "|")
    row("Memory of the process' own, KiB|" number("linked.bare", "KiB") "|" number("linked.library", "KiB") "|")
    row("The same with an `AuthClient`, or bare objects, KiB|" number("AuthClient.bare", "KiB") \
        "|" number("AuthClient.library", "KiB") "|")
}

function compared(name, other, unit, bound)
{
    return number(other, unit) "|" number(name, unit) "|" ratio(name, other, unit, bound)
}

function bounded(name, unit, bound)
{
    return number(name, unit) " (" digits(judged(name, unit, unit, figure(name, unit), bound, "", bound)) ")"
}

function ratio(name, other, unit, bound,   base, value)
{
    base = figure(other, unit)
    value = figure(name, unit)
    # Beside nothing, nothing alone is good.
    if (base)
        value /= base
    return sprintf("%.3f (%s)", value, judged(name, unit, "ratio of " unit, value, bound, other, bound))
}

function more(name, other, unit, bound,   value)
{
    value = figure(name, unit) - figure(other, unit)
    return sprintf("%+g (%+g)", value, judged(name, unit, "more " unit, value, bound, other, bound + 1))
}

# passing: the figure that is just good enough when all others are one. Returns the bound.
function judged(name, unit, what, value, bound, other, passing)
{
    if (list)
        print "bound", name, unit, passing
    else if (value > bound + 0.0000001)
        fail(name ": " value " (" what "), at most " bound)
    write(name, what, value, bound, other)
    return bound
}

function figure(name, unit)
{
    if (list) {
        print "figure", name, unit
        return 1
    }
    if (!((name, unit) in figures))
        fail("no figure of " name " in " unit)
    # A counter that has lost what it counts finds nothing at all.
    else if (!figures[name, unit] && unit != "allocations" && unit != "waits")
        fail(name ": no " unit)
    return figures[name, unit]
}

function number(name, unit,   value)
{
    value = figure(name, unit)
    return unit == "µs" || unit == "allocations" ? digits(value, value < 100 && value != int(value)) : digits(value)
}

# Rounded, with a comma before each three digits.
function digits(value, decimals,   text, grouped)
{
    text = sprintf("%." (decimals + 0) "f", value)
    while (!decimals && length(text) > 3) {
        grouped = "," substr(text, length(text) - 2) grouped
        text = substr(text, 1, length(text) - 3)
    }
    return text grouped
}

function fail(problem)
{
    print problem >"/dev/stderr"
    failed = 1
}

function title(text)
{
    if (!list)
        printf "\n%s\n\n", text
}

function header(cells)
{
    row(cells)
    gsub(/[^|]+/, "", cells)
    gsub(/\|/, "|--:", cells)
    row("--" cells)
}

function row(cells)
{
    gsub(/\|/, " | ", cells)
    if (!list)
        print "| " cells " |"
}

function write(name, unit, value, bound, other)
{
    elements = elements (elements ? ",\n" : "") sprintf("{\"name\": \"%s\", \"unit\": \"%s\", \"value\": %.10g", name, unit, value)
    if (bound != "")
        elements = elements sprintf(", \"bound\": %.10g", bound)
    if (other)
        elements = elements sprintf(", \"ratioTo\": \"%s\"", other)
    elements = elements "}"
}
