#!/usr/bin/env bash
# The layer and the host game service (zovk-gameservice) as separate processes, as on a device. Real
# programs run as Star Rail ("exec -a com.miHoYo.hkrpg") through the layer, with its debug log on and the
# Khronos validation layer beneath it:
# - fetch_and_register: the configuration fetch, the build tag line, hook-enable bits 0 and 1, the
#   callback registration (transaction 35) and the monitor-started notice (transaction 29);
# - unconfigured_package: a recognised process that the service has no document for stays a pass-through;
# - push_records: records pushed through the service reach the running program's monitor; a malformed
#   one is logged and leaves the layer serving; one for another package never reaches it;
# - service_killed: SIGKILL of the service while the program runs; the program goes on to exit 0;
# - hung_service: a stopped service makes the fetch fail after the bounded wait; the program runs on as
#   a pass-through;
# - scene_report_once: with module 1 configured, {"sceneId":10005} reaches the service exactly once
#   although the program creates several graphics pipelines.
# Every run must leave the validation layer silent.
#
# The long-running program is vkcube under Xvfb with a frame count it never reaches: the script ends it
# through its window (WM_DELETE_WINDOW, the way a window manager closes it), so that each case ends in
# vkcube's normal exit once the case is done, however fast the machine draws.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require vkcube vulkaninfo python3 xwininfo gfxrecon-info pgrep ps diff

echo 'vendor.zovk.log.debug=true' >"$ZOVK_PROPERTIES"

APP=com.miHoYo.hkrpg
OTHER_APP=com.HoYoverse.hkrpgoversea # recognised by the layer, unknown to the service below
# Module 1 only: it reports the scene id and leaves rendering alone. Module 2 (VRS) needs a driver with
# fragment shading rates, which lavapipe has only through the emulation layer.
CONFIG=$IT_TMP/gameservice.json
cat >"$CONFIG" <<EOF
{ "$APP": { "configs": { "xrender_BaseInfo": "1" } } }
EOF

# Run the rest of the command line under the process name that the layer reads.
# shellcheck disable=SC2016 # expanded by the inner shell
AS_APP=(bash -c 'exec -a "$0" "$@"' "$APP")
# shellcheck disable=SC2016
AS_OTHER_APP=(bash -c 'exec -a "$0" "$@"' "$OTHER_APP")

fail() {
    stop_program
    it_fail "$@"
}

# ---- programs in the background ----------------------------------------------------------------

PROGRAM_PID=
PROGRAM_LABEL=
WINDOW=

# start_program LABEL COMMAND...: like it_run, but returns at once.
start_program() {
    PROGRAM_LABEL=$1
    shift
    timeout -k 10 "$IT_TIMEOUT" "${IT_PRELOAD[@]}" "$@" \
        >"$IT_TMP/$PROGRAM_LABEL.out" 2>"$IT_TMP/$PROGRAM_LABEL.err" &
    PROGRAM_PID=$!
}

# wait_program: waits for the program started last; sets IT_RC.
wait_program() {
    wait "$PROGRAM_PID"
    IT_RC=$?
    PROGRAM_PID=
    if [ "$IT_RC" -eq 124 ] || [ "$IT_RC" -eq 137 ]; then
        it_show "$IT_TMP/$PROGRAM_LABEL.err"
        it_fail "$PROGRAM_LABEL: the program did not finish within ${IT_TIMEOUT}s"
    fi
}

# stop_program: ends a program still running after a failure (`timeout` passes the TERM on).
stop_program() {
    [ -n "$PROGRAM_PID" ] || return 0
    kill -s TERM "$PROGRAM_PID" 2>/dev/null
    wait "$PROGRAM_PID" 2>/dev/null
    PROGRAM_PID=
}

trap 'stop_program; it_service_stop; it_cleanup' EXIT

# What vkcube needs of its window, over the X protocol itself (no X client tool here sends events):
#   x11_window.py resize WINDOW WIDTH HEIGHT   ConfigureWindow (vkcube recreates its swapchain)
#   x11_window.py close WINDOW                 the WM_DELETE_WINDOW message (vkcube quits)
# Xvfb from it_start_xvfb accepts local clients without authorisation.
cat >"$IT_TMP/x11_window.py" <<'EOF'
import os, socket, struct, sys


def recv_exactly(conn, size):
    data = b""
    while len(data) < size:
        chunk = conn.recv(size - len(data))
        if not chunk:
            sys.exit("x11_window: the X server closed the connection")
        data += chunk
    return data


def reply(conn):
    while True:
        packet = recv_exactly(conn, 32)
        if packet[0] == 0:
            sys.exit("x11_window: X error %d on resource 0x%x" % (packet[1], struct.unpack_from("<I", packet, 4)[0]))
        if packet[0] == 1:
            return packet + recv_exactly(conn, struct.unpack_from("<I", packet, 4)[0] * 4)


def intern_atom(conn, name):
    raw = name.encode()
    pad = -len(raw) % 4
    conn.sendall(struct.pack("<BBHHxx", 16, 1, 2 + (len(raw) + pad) // 4, len(raw)) + raw + b"\0" * pad)
    return struct.unpack_from("<I", reply(conn), 8)[0]


display = os.environ["DISPLAY"].split(":")[1].split(".")[0]
conn = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
conn.connect("/tmp/.X11-unix/X" + display)
conn.sendall(struct.pack("<BxHHHHxx", 0x6C, 11, 0, 0, 0))
setup = recv_exactly(conn, 8)
recv_exactly(conn, struct.unpack_from("<H", setup, 6)[0] * 4)
if setup[0] != 1:
    sys.exit("x11_window: the X server refused the connection")

command, window = sys.argv[1], int(sys.argv[2], 0)
if command == "resize":
    conn.sendall(struct.pack("<BxHIHxxII", 12, 5, window, 0x4 | 0x8, int(sys.argv[3]), int(sys.argv[4])))
elif command == "close":
    protocols, delete = intern_atom(conn, "WM_PROTOCOLS"), intern_atom(conn, "WM_DELETE_WINDOW")
    message = struct.pack("<BBHII5I", 33, 32, 0, window, protocols, delete, 0, 0, 0, 0)
    conn.sendall(struct.pack("<BBHII", 25, 0, 11, window, 0) + message)
else:
    sys.exit("x11_window: unknown command " + command)
# GetInputFocus: its reply comes after any error of the request above.
conn.sendall(struct.pack("<BxH", 43, 1))
reply(conn)
EOF

# start_vkcube LABEL LAYERS [VAR=VALUE...]: vkcube as the application through LAYERS (VK_INSTANCE_LAYERS
# syntax), until close_vkcube; returns once its window exists (in WINDOW).
start_vkcube() {
    local label=$1 layers=$2 i
    shift 2
    it_env_layers "$layers"
    start_program "$label" env "${IT_ENV[@]}" "$@" "${AS_APP[@]}" vkcube --c 1000000
    WINDOW=
    for ((i = 0; i < 600; i++)); do
        # vkcube's is the only window on our server.
        WINDOW=$(xwininfo -root -children 2>/dev/null | awk '$1 ~ /^0x/ { print $1; exit }')
        [ -n "$WINDOW" ] && return 0
        kill -0 "$PROGRAM_PID" 2>/dev/null || break
        sleep 0.1
    done
    [ -n "$PROGRAM_PID" ] && ! kill -0 "$PROGRAM_PID" 2>/dev/null && wait_program
    it_show "$IT_TMP/$label.err"
    fail "$label: vkcube opened no window (exit status ${IT_RC:-none yet})"
}

# resize_vkcube WIDTH HEIGHT
resize_vkcube() {
    python3 "$IT_TMP/x11_window.py" resize "$WINDOW" "$1" "$2" ||
        fail "$PROGRAM_LABEL: could not resize vkcube's window $WINDOW"
}

# close_vkcube: closes the window and expects vkcube's normal exit and a silent validation layer.
close_vkcube() {
    kill -0 "$PROGRAM_PID" 2>/dev/null || {
        wait_program
        it_show "$IT_TMP/$PROGRAM_LABEL.err"
        it_fail "$PROGRAM_LABEL: vkcube ended before it was closed (exit status $IT_RC)"
    }
    python3 "$IT_TMP/x11_window.py" close "$WINDOW" ||
        fail "$PROGRAM_LABEL: could not close vkcube's window $WINDOW"
    local label=$PROGRAM_LABEL
    wait_program
    it_expect_success "$label"
    it_expect_no_validation "$label"
}

# ---- log checks -------------------------------------------------------------------------------

# count FILE ERE: lines of FILE that match.
count() {
    local n
    n=$(grep -Ec -- "$2" "$1" 2>/dev/null)
    echo "${n:-0}"
}

# expect_once FILE ERE WHAT / expect_some FILE ERE WHAT / expect_none FILE ERE WHAT
expect_once() {
    local n
    n=$(count "$1" "$2")
    [ "$n" -eq 1 ] || {
        it_show "$1"
        fail "$3: expected once in $(basename "$1"), found $n times"
    }
}
expect_some() {
    grep -Eq -- "$2" "$1" || {
        it_show "$1"
        fail "$3: not found in $(basename "$1")"
    }
}
expect_none() {
    if grep -E -- "$2" "$1" >&2; then
        fail "$3: unexpected line(s) above in $(basename "$1")"
    fi
}

# Lines that the layer (tag libZoVK) writes when the service cannot be reached or called.
SERVICE_TROUBLE='remote service not exi|call remote service failed|remote service died'

# The output of `vulkaninfo --summary` with the layer offered but not enabled, for runs that must be
# pure pass-throughs.
it_run plain env VK_ADD_LAYER_PATH="$IT_LAYER_DIR" "${AS_APP[@]}" vulkaninfo --summary
it_expect_success plain

# expect_pass_through LABEL: the run printed what vulkaninfo prints without the layer.
expect_pass_through() {
    diff "$IT_TMP/plain.out" "$IT_TMP/$1.out" >"$IT_TMP/$1.diff" || {
        it_show "$IT_TMP/$1.diff"
        fail "$1: vulkaninfo printed something else through the layer than without it"
    }
}

it_start_xvfb

# ---- the cases ----------------------------------------------------------------------------------

case_fetch_and_register() {
    it_service_start service_fetch "$CONFIG"
    start_vkcube fetch "$IT_LAYER:$IT_VALIDATION"
    # The registration runs on the layer's own thread: wait for it before ending the program.
    it_wait_for "$IT_SERVICE_LOG" "^transaction 35 " 30 "the callback registration (transaction 35)"
    close_vkcube
    it_expect_chain fetch vkCreateDevice "$IT_LAYER" "$IT_VALIDATION"

    local log=$IT_SERVICE_LOG err=$IT_TMP/fetch.err
    expect_once "$log" "^transaction 30 fetch $APP -> [1-9][0-9]* bytes\$" "the configuration fetch"
    [ "$(grep -m1 '^transaction ' "$log" | cut -d' ' -f2)" = 30 ] ||
        fail "the service saw another transaction before the configuration fetch"
    expect_once "$log" "^transaction 35 register ${APP}_zovk binder=yes\$" \
        "the registration of the layer's callback with a binder"
    expect_once "$log" "^transaction 29 monitor-started $APP\$" "the monitor-started notice"
    expect_once "$err" "vxxk v: 2025052101, n: $APP\$" "the layer's build tag line after the fetch"
    expect_once "$err" "vxxk enf: 3\$" "hook-enable bits 0 and 1 after the accepted configuration"
    expect_once "$err" "ZoVK BnGameInfoUpdate register success\$" "the layer's registration success line"
    expect_none "$err" "$SERVICE_TROUBLE" "with the service up, the layer"
    it_service_stop
    [ "$IT_SERVICE_RC" -eq 0 ] || fail "the game service exited with status $IT_SERVICE_RC on SIGTERM"
    it_log "ok: fetch_and_register"
}

case_unconfigured_package() {
    it_service_start service_unconfigured "$CONFIG"
    it_env_layer_validation
    it_run unconfigured env "${IT_ENV[@]}" "${AS_OTHER_APP[@]}" vulkaninfo --summary
    it_expect_success unconfigured
    it_expect_no_validation unconfigured
    expect_pass_through unconfigured

    local log=$IT_SERVICE_LOG err=$IT_TMP/unconfigured.err
    expect_once "$log" "^transaction 30 fetch $OTHER_APP -> 0 bytes\$" "the fetch answered with no document"
    expect_none "$log" "^transaction (29|35|3) " "without a configuration, the monitor and modules stay off:"
    expect_once "$err" "vxxk v: 2025052101, n: $OTHER_APP\$" "the build tag line after the empty fetch"
    expect_none "$err" "vxxk enf" "an empty document must enable no hooks;"
    it_service_stop
    it_log "ok: unconfigured_package"
}

PUSHES=0
# push RECORD EXPECTED_EXIT LAYER_LINE: pushes RECORD while the program runs; LAYER_LINE (an ERE, or
# empty) must follow in the program's log. push exits 0 when a layer took the record, 1 when none did.
push() {
    local record=$1 want=$2 line=$3 label=push$((PUSHES += 1)) err=$IT_TMP/$PROGRAM_LABEL.err
    it_service_push "$label" "$record"
    if [ "$IT_RC" -ne "$want" ]; then
        it_show "$IT_TMP/$label.err"
        it_show "$IT_SERVICE_LOG"
        fail "push \"$record\" exited $IT_RC, expected $want"
    fi
    expect_once "$IT_SERVICE_LOG" "^push \"$record\" -> $((1 - want)) layer\\(s\\)\$" "the service's push line"
    # The push returns after the layer's callback has returned: its lines are already written.
    if [ -n "$line" ]; then
        expect_once "$err" "appInfo changed: $record\$" "record \"$record\" in the layer"
        expect_once "$err" "$line" "the layer's parse line for \"$record\""
    else
        expect_none "$err" "appInfo changed: $record\$" "record \"$record\" must not reach the layer;"
    fi
}

case_push_records() {
    it_service_start service_push "$CONFIG"
    start_vkcube push_records "$IT_LAYER:$IT_VALIDATION"
    it_wait_for "$IT_SERVICE_LOG" "^transaction 35 register ${APP}_zovk" 30 "the callback registration"

    push "1 $APP 12" 0 "ParseGameSceneId: 12\$"
    push "2 $APP 54 1" 0 "parseGamePictureInfo key: 54 , value: 1\$"
    push "6 $APP 3" 0 "parseVkVrsSwitch: 3\$"
    push "6 $APP 0" 0 "parseVkVrsSwitch: 0\$"
    # A record without its scene id: logged by the layer, success for the caller, nothing stored.
    push "1 $APP" 0 "parse game sceneId error: "
    [ "$(count "$IT_TMP/push_records.err" 'ParseGameSceneId: ')" -eq 1 ] ||
        fail "the record without a scene id reached ParseGameSceneId"
    push "1 $APP 40" 0 "ParseGameSceneId: 40\$"
    # The service hands a record only to the layers registered for its package: none here.
    push "1 $OTHER_APP 99" 1 ""
    # The parse lines come before the package check; no mismatch line means every value was stored.
    expect_none "$IT_TMP/push_records.err" "[spv]_er_p:" "records for this package were rejected;"

    close_vkcube
    it_service_stop
    it_log "ok: push_records"
}

case_service_killed() {
    it_service_start service_killed "$CONFIG"
    start_vkcube killed "$IT_LAYER:$IT_VALIDATION"
    it_wait_for "$IT_SERVICE_LOG" "^transaction 35 register ${APP}_zovk" 30 "the callback registration"
    it_service_signal KILL
    it_service_stop
    [ "$IT_SERVICE_RC" -eq 137 ] || fail "the game service was not ended by SIGKILL (status $IT_SERVICE_RC)"
    # More Vulkan work through the layer after the death: a new swapchain and pipeline.
    resize_vkcube 320 240
    close_vkcube
    it_log "ok: service_killed"
}

case_hung_service() {
    it_service_start service_hung "$CONFIG"
    it_service_signal STOP
    it_env_layer_validation
    it_run hung env "${IT_ENV[@]}" ZOVK_BINDER_TIMEOUT_MS=1000 "${AS_APP[@]}" vulkaninfo --summary
    it_expect_success hung
    it_expect_no_validation hung
    expect_pass_through hung

    local err=$IT_TMP/hung.err
    # Either the lookup or the fetch itself runs out of time, depending on where the service froze.
    expect_some "$err" "vxxk:call remote service failed\\.\$|remote service not exist\\.\$" \
        "the failed fetch from a stopped service"
    expect_none "$err" "vxxk v: |vxxk enf" "after a failed fetch the layer must stay a pass-through;"
    it_service_stop
    [ "$IT_SERVICE_RC" -eq 0 ] ||
        fail "the game service, resumed after the layer gave up on it, exited with status $IT_SERVICE_RC"
    it_log "ok: hung_service"
}

# resize_three_times: the same three window sizes in every run, each different from the last.
resize_three_times() {
    resize_vkcube 320 240
    resize_vkcube 400 300
    resize_vkcube 256 256
}

case_scene_report_once() {
    # vkcube makes one graphics pipeline per swapchain, and a new swapchain whenever its window changes
    # size. First, without our layer, the capture layer counts the pipelines that three resizes give,
    # so that the case cannot pass on a program that made only one.
    local capture=$IT_TMP/scene.gfxr pipelines
    start_vkcube scene_count VK_LAYER_LUNARG_gfxreconstruct \
        GFXRECON_CAPTURE_FILE="$capture" GFXRECON_CAPTURE_FILE_TIMESTAMP=false GFXRECON_LOG_LEVEL=warning
    resize_three_times
    close_vkcube
    pipelines=$(gfxrecon-info "$capture" 2>/dev/null | awk -F: '/Total graphics pipelines/ { print $2 + 0 }')
    [ "${pipelines:-0}" -ge 2 ] ||
        fail "vkcube created ${pipelines:-no} graphics pipeline(s) with three resizes; the case needs several"

    it_service_start service_scene "$CONFIG"
    start_vkcube scene "$IT_LAYER:$IT_VALIDATION"
    it_wait_for "$IT_SERVICE_LOG" "^transaction 35 register ${APP}_zovk" 30 "the callback registration"
    resize_three_times
    close_vkcube
    if ! grep -q 'sendSceneIdToPavune' "$IT_TMP/scene.err"; then
        it_show "$IT_TMP/scene.err"
        fail "the scene report module never ran: the layer did not intercept vkCreateGraphicsPipelines"
    fi
    expect_once "$IT_SERVICE_LOG" '^transaction 3 scene-report 1 \{"sceneId":10005\}$' \
        "the Vulkan-mode scene report for $pipelines pipelines"
    expect_once "$IT_SERVICE_LOG" '^transaction 3 ' "scene reports of any kind"
    it_service_stop
    it_log "ok: scene_report_once ($pipelines pipelines)"
}

case_fetch_and_register
case_unconfigured_package
case_push_records
case_service_killed
case_hung_service
case_scene_report_once
it_log "PASS"
