# Who may include whom. Reads the names of the tree's files, one a line, then each include as "file:line:#include ...";
# prints every arrow that is forbidden and every circle among headers, nothing when all is well.
#
# A new file of the plug-in gets its place in Layer() below: arrows between layers point down or stay level.

BEGIN {
    FRAME = 6; SERVICES = 5; PACKING = 4; ENGINE = 3; RECORDS = 2; VOCABULARY = 1
    name_of[FRAME] = "frame"; name_of[SERVICES] = "services"; name_of[PACKING] = "packing"
    name_of[ENGINE] = "diff engine"; name_of[RECORDS] = "records"; name_of[VOCABULARY] = "vocabulary"

    # The table of what each report's rows can do names the operations that build its current state, and those live with
    # the report's half of the engine. It is a table of addresses: nothing in it calls up.
    exception["libvtenterprise/diff_handles.cc", "libvtenterprise/diff_classes.h"] = 1
    exception["libvtenterprise/diff_handles.cc", "libvtenterprise/diff_execution_log.h"] = 1
    exception["libvtenterprise/diff_handles.cc", "libvtenterprise/diff_lastseen.h"] = 1
    exception["libvtenterprise/diff_handles.cc", "libvtenterprise/diff_software.h"] = 1
    exception["libvtenterprise/diff_handles.cc", "libvtenterprise/diff_variables.h"] = 1

    # Where an include is looked for.
    roots = split("./ host/ host/libveltrane/include/ host/libsluice/include/ tests/", root, " ")

    # What the plug-in may use that is not ours: C, C++ and POSIX by name, and two libraries.
    count = split("assert ctype dirent dlfcn errno fcntl fnmatch glob grp inttypes limits locale math netdb poll " \
                  "pthread pwd regex sched search semaphore setjmp signal stdarg stdatomic stdbool stddef stdint " \
                  "stdio stdlib string strings syslog termios time unistd utime wchar wctype " \
                  "lber ldap", names, " ")
    for (i = 1; i <= count; i++) {
        known[names[i] ".h"] = 1
    }
}

function Layer(path,    room) {
    if (path ~ /^enterprise-plugin\//) { return FRAME }
    if (path ~ /^libvt(agent|serverd)\//) { return SERVICES }
    room = path
    sub(/^libvtenterprise\//, "", room)
    sub(/\.[a-z]+$/, "", room)
    if (room ~ /^(vtenterprise|transport_crypto|enterprise_ha|cookies|remote_scalar|unreliable_values)$/) { return SERVICES }
    if (room ~ /^ldap_(library|session|lib|functions)$/) { return SERVICES }
    if (room ~ /^(enterprise_compliance_log|evaluated_promise|enterprise_promises|reports_context)$/) { return SERVICES }
    if (room ~ /^(datapack.*|reply_line|untracked_index|server_report_filter|report_data|synthetic_reports)$/) { return PACKING }
    if (room ~ /^(diff_common|diff_handles|enterprise_install|record|hub_.*|promise_execution_json|promise_log)$/) {
        return RECORDS
    }
    if (room ~ /^(diff_.*|cache_comparison|temporary_cache|state_files|state_text|critical_guard)$/) { return ENGINE }
    if (room ~ /^(reports|reported_text|csv_records|json_line|safe_write_log|map_values)$/) { return VOCABULARY }
    if (room ~ /^(scan_number|export|thread_guard|time_difference|entry_points_real|call_frame|stubs|report_collect_extension)$/) { return VOCABULARY }
    return 0
}

function Area(path) {
    if (path ~ /^(enterprise-plugin|libvt[a-z]+)\//) { return "plug-in" }
    if (path ~ /^report-collect\//) { return "hub library" }
    if (path ~ /^host\/lib[a-z]+\/include\//) { return "public" }
    if (path ~ /^host\/libveltrane\//) { return "private" }
    if (path ~ /^host\/libsluice\//) { return "sluice" }
    if (path ~ /^host\/vt-[a-z]+\//) { return "program" }
    return "tests"
}

function Folder(path) {
    sub(/[^\/]*$/, "", path)
    return path
}

# The tree's file that an include names, or "" for a header that is not ours.
function Resolve(text,    i) {
    for (i = 1; i <= roots; i++) {
        if (root[i] == "./" && text in exists) { return text }
        if ((root[i] text) in exists) { return root[i] text }
    }
    return ""
}

# Why one file of the tree may not include another, or "".
function WhyNot(from, to,    here, there) {
    here = Area(from)
    there = Area(to)
    if (there == "tests" && here != "tests") { return "tests and benches are included by their own kind only" }
    if (here == "plug-in") {
        if (there == "public") { return "" }
        if (there != "plug-in") { return "the plug-in reaches the host through its public headers only" }
        if (from ~ /^libvtagent\// && to ~ /^libvtserverd\// || from ~ /^libvtserverd\// && to ~ /^libvtagent\//) {
            return "libvtagent and libvtserverd belong to one program each"
        }
        if (Layer(from) > 0 && Layer(to) > Layer(from) && !((from, to) in exception)) {
            return "an arrow from " name_of[Layer(from)] " up to " name_of[Layer(to)]
        }
        return ""
    }
    if (here == "hub library") {
        if (there == "public" || there == here) { return "" }
        if (to ~ /^libvtenterprise\/(call_frame|export)\.h$/) { return "" }
        return "the hub library knows the frame and the host's public headers only"
    }
    if (there == "hub library") {
        if (here == "tests" || from ~ /^host\/vt-hub\// && to ~ /\/hub_calls\.h$/) { return "" }
        return "only vt-hub uses a header of the hub library, and only hub_calls.h"
    }
    if (there == "plug-in") {
        if (here == "tests") {
            return from ~ /^tests\/unit\/host\// ? "a test of the host library does not know the plug-in" : ""
        }
        if (from ~ /^host\/vt-hub\// && to ~ /^libvtenterprise\//) { return "" }
        return "of the host only vt-hub uses headers of the plug-in, and only those of libvtenterprise"
    }
    if (here == "public" && there != "public") { return "a public header includes public headers only" }
    if (here == "private" && there == "program") { return "the library does not know the programs" }
    if (here == "sluice" && there != "public") { return "libsluice stands alone" }
    if (here == "program" && there == "program" && Folder(from) != Folder(to)) {
        return "programs share code through libveltrane"
    }
    return ""
}

# Depth first over the headers; a header met again while it is still open closes a circle.
function Walk(header, trail,    count, i, next_one, list) {
    state[header] = "open"
    count = split(includes[header], list, "\n")
    for (i = 1; i <= count; i++) {
        next_one = list[i]
        if (state[next_one] == "open") {
            print header ": includes go in a circle: " trail " > " next_one
        } else if (state[next_one] == "") {
            Walk(next_one, trail " > " next_one)
        }
    }
    state[header] = "done"
}

!/^[^:]*:[0-9]+:/ {
    exists[$0] = 1
    if (Area($0) == "plug-in" && Layer($0) == 0 && $0 ~ /\.(h|cc)$/) {
        print $0 ": stands in no layer: give it its place in scripts/include_rules.awk"
    }
    next
}

{
    split($0, part, ":")
    from = part[1]
    where = part[1] ":" part[2] ": "
    text = $0
    sub(/^[^"<]*["<]/, "", text)
    quoted = $0 ~ /include[ \t]*"/
    sub(/[">].*$/, "", text)
    to = Resolve(text)

    if (quoted && text !~ /\//) {
        print where text ": a header of ours is written with its folder, so that every user of it is found"
        next
    }
    if (to != "") {
        reason = WhyNot(from, to)
        if (reason != "") { print where text ": " reason }
        if (from !~ /\.(cc|c)$/) { includes[from] = includes[from] (includes[from] == "" ? "" : "\n") to }
        next
    }
    if (quoted) {
        print where text ": names no file of the tree"
        next
    }
    area = Area(from)
    if (area != "plug-in" && area != "hub library" && area != "public") { next }
    if (text ~ /^openssl\// || text ~ /^(sys|arpa|net|netinet)\/[a-z]+\.h$/ || text in known) { next }
    if (area != "public" && text ~ /^[a-z_]+$/) { next }
    if (area == "public" && from ~ /\/owned\.h$/ && text ~ /^[a-z_]+$/) { next }  # for C++ callers; empty in C
    print where text ": " (area == "public" ? "a public header" : "the " area) " does not use this library"
}

END {
    for (header in includes) {
        if (state[header] == "") { Walk(header, header) }
    }
}
