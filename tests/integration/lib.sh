# shellcheck shell=bash
# Shared helpers of the real-client tests. Sourced by each scenario script:
#
#   . "$(dirname "$0")/lib.sh"
#   it_init "$@"            # BUILD_DIR: checks the build, makes the temp dir, cleans the environment
#
# Every scenario runs programs that nobody here wrote (vulkaninfo, vkcube, gfxrecon-replay, vkBasalt,
# MangoHud) through the layer built in BUILD_DIR, on the lavapipe driver. Everything a scenario writes
# goes under its own temp dir, removed on exit; every program is bounded by `timeout`.
#
# Facts about this loader (1.3.239) that the helpers rely on:
# - Layers named in VK_INSTANCE_LAYERS are stacked in the order the loader found their manifests, not in
#   the order of the list. Manifests under VK_ADD_LAYER_PATH are found before the standard explicit
#   layer directories, so the layer sits above the Khronos validation layer, which sits above the driver.
# - With VK_LOADER_DEBUG=layer the loader prints to stderr, for every vkCreateInstance and vkCreateDevice,
#   a "layer callstack setup to:" block listing the layers from the application down to the driver.
# - Implicit layers (MESA device_select, and vkBasalt/MangoHud when their enable variables are set) are
#   stacked above all explicitly enabled ones.

set -u -o pipefail

IT_NAME=$(basename "$0" .sh)
IT_LAYER=zovkshadingrateengine
IT_MANIFEST_FILE=zovkshadingrateengine.json
IT_LIBRARY_FILE=libzovk.so
IT_VALIDATION=VK_LAYER_KHRONOS_validation
# Upper bound of one program run in seconds; sanitizer builds of the layer may need more.
IT_TIMEOUT=${ZOVK_IT_TIMEOUT:-180}

IT_TMP=
IT_XVFB_PID=

it_log() { printf '[%s] %s\n' "$IT_NAME" "$*" >&2; }

it_fail() {
    printf '[%s] FAIL: %s\n' "$IT_NAME" "$*" >&2
    exit 1
}

# it_show FILE [LINES]: copies the tail of a file to stderr, for the reader of a failure, leaving out the
# loader's manifest search and call stack lines (set ZOVK_IT_KEEP_TMP=1 to keep the whole file).
it_show() {
    local file=$1 lines=${2:-40}
    [ -s "$file" ] || return 0
    printf '[%s] ---- last %s lines of %s ----\n' "$IT_NAME" "$lines" "$(basename "$file")" >&2
    grep -av '^LAYER:' "$file" | tail -n "$lines" >&2
    printf '[%s] ----\n' "$IT_NAME" >&2
}

it_cleanup() {
    if [ -n "$IT_XVFB_PID" ]; then
        kill "$IT_XVFB_PID" 2>/dev/null
        wait "$IT_XVFB_PID" 2>/dev/null
        IT_XVFB_PID=
    fi
    if [ -n "$IT_TMP" ] && [ -d "$IT_TMP" ]; then
        if [ -n "${ZOVK_IT_KEEP_TMP:-}" ]; then
            it_log "kept $IT_TMP"
        else
            rm -rf "$IT_TMP"
        fi
    fi
}

# it_require PROGRAM...: fails unless every program is on PATH.
it_require() {
    local p
    for p in "$@"; do
        command -v "$p" >/dev/null 2>&1 || it_fail "required program '$p' is not installed"
    done
}

# it_init BUILD_DIR: checks that the build holds the manifest and the library, creates the temp dir and
# gives every run the same clean environment. Sets IT_BUILD, IT_TMP, IT_LAYER_DIR, IT_VVL_LOG.
it_init() {
    [ $# -eq 1 ] || it_fail "usage: $0 BUILD_DIR"
    [ -d "$1" ] || it_fail "build directory '$1' does not exist"
    IT_BUILD=$(cd "$1" && pwd -P) || it_fail "cannot enter build directory '$1'"
    [ -f "$IT_BUILD/$IT_MANIFEST_FILE" ] || it_fail "no layer manifest $IT_MANIFEST_FILE in $IT_BUILD (is the layer built?)"
    [ -s "$IT_BUILD/$IT_LIBRARY_FILE" ] || it_fail "no layer library $IT_LIBRARY_FILE in $IT_BUILD (is the layer built?)"
    grep -Eq "\"name\"[[:space:]]*:[[:space:]]*\"$IT_LAYER\"" "$IT_BUILD/$IT_MANIFEST_FILE" ||
        it_fail "$IT_BUILD/$IT_MANIFEST_FILE does not declare the layer $IT_LAYER"
    it_require timeout mktemp

    local keep_timeout=$IT_TIMEOUT keep_tmp=${ZOVK_IT_KEEP_TMP:-}
    # Nothing of the caller's Vulkan, capture, overlay or layer settings may leak into a run.
    local v
    for v in $(compgen -e); do
        case $v in
        VK_* | GFXRECON_* | VKBASALT_* | ENABLE_VKBASALT | DISABLE_VKBASALT | MANGOHUD* | DISABLE_MANGOHUD | \
            NODEVICE_SELECT | MESA_VK_DEVICE_SELECT* | ZOVK_* | DISPLAY | WAYLAND_DISPLAY)
            unset "$v"
            ;;
        esac
    done
    IT_TIMEOUT=$keep_timeout
    [ -n "$keep_tmp" ] && export ZOVK_IT_KEEP_TMP=$keep_tmp

    IT_TMP=$(mktemp -d "${TMPDIR:-/tmp}/zovk-it-$IT_NAME.XXXXXX") || it_fail "mktemp failed"
    trap it_cleanup EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM

    mkdir -m 700 "$IT_TMP/run" "$IT_TMP/home" "$IT_TMP/binder"
    mkdir "$IT_TMP/work" "$IT_TMP/layers" "$IT_TMP/vvl"
    export HOME=$IT_TMP/home XDG_RUNTIME_DIR=$IT_TMP/run
    export XDG_CONFIG_HOME=$IT_TMP/home/.config XDG_CACHE_HOME=$IT_TMP/home/.cache
    # The layer's host services: no game service runs in these tests, so the layer stays a
    # pass-through even in a process that it recognises; properties default unless a test sets them.
    export ZOVK_BINDER_DIR=$IT_TMP/binder
    : >"$IT_TMP/properties"
    export ZOVK_PROPERTIES=$IT_TMP/properties

    # A sanitizer build of the layer is loaded into programs built without it: the ASan
    # runtime must come first in the programs under test (it_run), and only there. Their
    # own code and drivers are not ours to judge: leaks and strict string checks stay off
    # for them; the unit tests run the layer's code with both on.
    IT_PRELOAD=()
    # (No pipe into grep -q here: under pipefail the early exit can SIGPIPE ldd.)
    if [[ $(ldd "$IT_BUILD/$IT_LIBRARY_FILE" 2>/dev/null) == *libasan* ]]; then
        IT_PRELOAD=(env "LD_PRELOAD=$(ldd "$IT_BUILD/$IT_LIBRARY_FILE" | awk '/libasan/ {print $3}')"
            "ASAN_OPTIONS=abort_on_error=1:detect_leaks=0:strict_string_checks=0")
        IT_TIMEOUT=$((IT_TIMEOUT * 2))
    fi

    # Pin the driver to lavapipe so that every machine renders the same pixels.
    local icd
    for icd in /usr/share/vulkan/icd.d/lvp_icd*.json /etc/vulkan/icd.d/lvp_icd*.json; do
        if [ -f "$icd" ]; then
            export VK_DRIVER_FILES=$icd VK_ICD_FILENAMES=$icd
            break
        fi
    done

    # A directory that holds only our manifest and library: the build dir also holds other JSON files
    # (compile_commands.json, test layers) that must not be offered to the loader.
    ln -s "$IT_BUILD/$IT_MANIFEST_FILE" "$IT_TMP/layers/$IT_MANIFEST_FILE"
    ln -s "$IT_BUILD/$IT_LIBRARY_FILE" "$IT_TMP/layers/$IT_LIBRARY_FILE"
    IT_LAYER_DIR=$IT_TMP/layers

    # The validation layer writes every error and warning to IT_VVL_LOG instead of stdout.
    IT_VVL_LOG=$IT_TMP/vvl/validation.log
    cat >"$IT_TMP/vvl/vk_layer_settings.txt" <<EOF
khronos_validation.debug_action = VK_DBG_LAYER_ACTION_LOG_MSG
khronos_validation.report_flags = error,warn
khronos_validation.log_filename = $IT_VVL_LOG
EOF

    # Layers and tools also read vk_layer_settings.txt from the working directory.
    cd "$IT_TMP/work" || it_fail "cannot enter $IT_TMP/work"
}

# it_words TEXT: the lines of TEXT joined by blanks, for one-line messages.
it_words() { printf '%s' "$1" | tr '\n' ' '; }

# it_env_layers LAYER_LIST: sets IT_ENV, the environment assignments (for `env`) of a run with our
# layer offered to the loader, the layers of LAYER_LIST (VK_INSTANCE_LAYERS syntax) enabled, the
# validation layer's messages routed to IT_VVL_LOG and the loader's layer call stacks on stderr.
# shellcheck disable=SC2034 # IT_ENV is used by the scenario scripts
it_env_layers() {
    IT_ENV=(VK_ADD_LAYER_PATH="$IT_LAYER_DIR" VK_INSTANCE_LAYERS="$1"
        VK_LAYER_SETTINGS_PATH="$IT_TMP/vvl" VK_LOADER_DEBUG=layer)
}

# it_env_layer_validation: IT_ENV of a run through our layer with the validation layer beneath it.
it_env_layer_validation() { it_env_layers "$IT_LAYER:$IT_VALIDATION"; }

# it_env_validation_only: IT_ENV of a run with the validation layer only, our layer offered but not
# enabled.
it_env_validation_only() { it_env_layers "$IT_VALIDATION"; }

# it_run LABEL COMMAND...: runs the command under `timeout`, stdout to $IT_TMP/LABEL.out and stderr to
# $IT_TMP/LABEL.err; sets IT_RC. A run that hits the time limit fails the test.
it_run() {
    local label=$1
    shift
    timeout -k 10 "$IT_TIMEOUT" "${IT_PRELOAD[@]}" "$@" >"$IT_TMP/$label.out" 2>"$IT_TMP/$label.err"
    IT_RC=$?
    if [ "$IT_RC" -eq 124 ] || [ "$IT_RC" -eq 137 ]; then
        it_show "$IT_TMP/$label.err"
        it_fail "$label: '$*' did not finish within ${IT_TIMEOUT}s"
    fi
    return 0
}

# it_expect_success LABEL: the last it_run of LABEL exited 0.
it_expect_success() {
    local label=$1
    if [ "$IT_RC" -ne 0 ]; then
        it_show "$IT_TMP/$label.out" 20
        it_show "$IT_TMP/$label.err"
        if [ "$IT_RC" -gt 128 ]; then
            it_fail "$label: exit status $IT_RC (killed by SIG$(kill -l "$((IT_RC - 128))"))"
        fi
        it_fail "$label: exit status $IT_RC"
    fi
}

# it_expect_no_validation CONTEXT: the validation log is empty or absent, then removes it for the next run.
it_expect_no_validation() {
    local context=$1
    if [ -s "$IT_VVL_LOG" ]; then
        printf '[%s] validation messages by id:\n' "$IT_NAME" >&2
        grep -Eo '\[ (VUID|UNASSIGNED)-[^ ]+ \]' "$IT_VVL_LOG" | sort | uniq -c >&2
        printf '[%s] ---- first 30 lines of the validation log ----\n' "$IT_NAME" >&2
        head -n 30 "$IT_VVL_LOG" >&2
        it_fail "$context: the validation layer reported errors or warnings"
    fi
    rm -f "$IT_VVL_LOG"
}

# it_loader_chains ERRFILE KIND: prints, for each "KIND layer callstack setup to:" block that the loader
# wrote to ERRFILE (KIND is vkCreateInstance or vkCreateDevice), one line per layer from the application
# down: "BLOCK<TAB>NAME<TAB>LIBRARY".
it_loader_chains() {
    awk -v kind="$2" '
        index($0, kind " layer callstack setup to:") { inblk = 1; blk++; name = ""; next }
        !inblk || !/^LAYER:/ { next }
        {
            text = $0
            sub(/^LAYER:[ \t]*/, "", text); sub(/[ \t]+$/, "", text)
        }
        text == "<Drivers>" || text == "<Device>" {
            if (name != "") print blk "\t" name "\t" lib
            inblk = 0; name = ""; next
        }
        text == "<Application>" || text == "<Loader>" || text == "||" { next }
        text ~ /^Library:/ { lib = text; sub(/^Library:[ \t]*/, "", lib); next }
        text ~ /:/ { next }
        {
            if (name != "") print blk "\t" name "\t" lib
            name = text; lib = ""
        }
    ' "$1"
}

# it_expect_chain LABEL KIND LAYER...: every KIND block of the run LABEL (started with VK_LOADER_DEBUG=layer)
# holds all the given layers in the given order, from the application towards the driver (others may sit
# between them), and our layer, wherever it appears, was loaded from the library of the build under test.
it_expect_chain() {
    local label=$1 kind=$2
    shift 2
    local errfile=$IT_TMP/$label.err chains=$IT_TMP/$label.$kind.chain
    it_loader_chains "$errfile" "$kind" >"$chains"
    if [ ! -s "$chains" ]; then
        it_show "$errfile"
        it_fail "$label: the loader wrote no $kind layer call stack (was VK_LOADER_DEBUG=layer set?)"
    fi
    local want_lib name lib
    want_lib=$(readlink -f "$IT_BUILD/$IT_LIBRARY_FILE")
    while IFS=$'\t' read -r _ name lib; do
        if [ "$name" = "$IT_LAYER" ] && [ "$(readlink -f "$lib")" != "$want_lib" ]; then
            it_fail "$label: $kind loaded $IT_LAYER from '$lib', not from $want_lib"
        fi
    done <"$chains"
    local blocks b
    blocks=$(cut -f1 "$chains" | sort -nu)
    for b in $blocks; do
        local stack pos=0 want idx
        stack=$(awk -F'\t' -v b="$b" '$1 == b { print $2 }' "$chains")
        for want in "$@"; do
            idx=$(printf '%s\n' "$stack" | grep -nxF -- "$want" | head -n 1 | cut -d: -f1)
            if [ -z "$idx" ]; then
                it_fail "$label: $want is missing from $kind call stack $b: $(it_words "$stack")"
            fi
            if [ "$idx" -le "$pos" ]; then
                it_fail "$label: $kind call stack $b has the wrong order (wanted, from the application down: $*): $(it_words "$stack")"
            fi
            pos=$idx
        done
    done
}

# it_start_xvfb: starts a private X server on a free display and exports DISPLAY.
it_start_xvfb() {
    it_require Xvfb
    local dispfile=$IT_TMP/xvfb.display
    : >"$dispfile"
    # -displayfd makes the server pick a free display number and write it to fd 9 once it accepts clients.
    timeout -k 5 3600 Xvfb -displayfd 9 -screen 0 1024x768x24 -nolisten tcp -noreset \
        9>"$dispfile" >"$IT_TMP/xvfb.log" 2>&1 &
    IT_XVFB_PID=$!
    for _ in $(seq 1 300); do
        [ "$(wc -l <"$dispfile")" -ge 1 ] && break
        if ! kill -0 "$IT_XVFB_PID" 2>/dev/null; then
            it_show "$IT_TMP/xvfb.log"
            it_fail "Xvfb exited before it was ready"
        fi
        sleep 0.1
    done
    [ "$(wc -l <"$dispfile")" -ge 1 ] || it_fail "Xvfb did not become ready within 30s"
    DISPLAY=":$(head -n 1 "$dispfile")"
    export DISPLAY
}

# it_stop_xvfb: stops the server started by it_start_xvfb.
it_stop_xvfb() {
    if [ -n "$IT_XVFB_PID" ]; then
        kill "$IT_XVFB_PID" 2>/dev/null
        wait "$IT_XVFB_PID" 2>/dev/null
        IT_XVFB_PID=
    fi
    unset DISPLAY
}

# ==== The host game service ==================================================================
# For scenarios that run zovk-gameservice beside the program under test. The service serves in the
# run's binder directory (ZOVK_BINDER_DIR, set by it_init) and logs one line per transaction on its
# stdout. One service at a time; it_service_start makes sure it is stopped and reaped at exit.

IT_SERVICE_PID=
IT_SERVICE_TIMEOUT=
IT_SERVICE_JOB=
IT_SERVICE_LOG=
IT_SERVICE_RC=

# it_wait_for FILE ERE SECONDS WHAT: waits until a line of FILE matches ERE; fails naming WHAT after
# SECONDS.
it_wait_for() {
    local file=$1 ere=$2 seconds=$3 what=$4 i
    for ((i = 0; i < seconds * 10; i++)); do
        grep -Eq -- "$ere" "$file" 2>/dev/null && return 0
        sleep 0.1
    done
    it_show "$file"
    it_fail "$what did not happen within ${seconds}s"
}

# it_child_of PARENT: the pid of PARENT's child (the first, if several).
it_child_of() { pgrep -P "$1" | head -n 1; }

# it_service_start LABEL CONFIG: starts the service of the build under test with the JSON file CONFIG
# (an object keyed by process name), stdout in $IT_TMP/LABEL.log and stderr in $IT_TMP/LABEL.err, and
# returns once it serves. Sets IT_SERVICE_PID (the service itself, for signals) and IT_SERVICE_LOG.
it_service_start() {
    local label=$1 config=$2 i
    [ -z "$IT_SERVICE_JOB" ] || it_fail "it_service_start: a game service is already running"
    [ -x "$IT_BUILD/zovk-gameservice" ] || it_fail "no zovk-gameservice in $IT_BUILD (is it built?)"
    case "$(trap -p EXIT)" in
    *it_service_stop*) ;;
    *) trap 'it_service_stop; it_cleanup' EXIT ;;
    esac
    IT_SERVICE_LOG=$IT_TMP/$label.log
    rm -f "$IT_TMP/$label.status"
    # Bounded like every other process of a scenario. The job is a subshell that records the status:
    # bash would report a job that a test kills on purpose as "Killed" on stderr.
    (
        timeout -k 5 600 "$IT_BUILD/zovk-gameservice" --config "$config" >"$IT_SERVICE_LOG" 2>"$IT_TMP/$label.err"
        echo $? >"$IT_TMP/$label.status"
    ) 2>/dev/null &
    IT_SERVICE_JOB=$!
    IT_SERVICE_TIMEOUT=
    IT_SERVICE_PID=
    for ((i = 0; i < 300; i++)); do
        [ -n "$IT_SERVICE_TIMEOUT" ] || IT_SERVICE_TIMEOUT=$(it_child_of "$IT_SERVICE_JOB")
        [ -n "$IT_SERVICE_TIMEOUT" ] && [ -z "$IT_SERVICE_PID" ] && IT_SERVICE_PID=$(it_child_of "$IT_SERVICE_TIMEOUT")
        [ -n "$IT_SERVICE_PID" ] && grep -q '^serving ' "$IT_SERVICE_LOG" && return 0
        if [ -s "$IT_TMP/$label.status" ]; then
            it_show "$IT_TMP/$label.err"
            it_service_stop
            it_fail "the game service exited with status $IT_SERVICE_RC before it served"
        fi
        sleep 0.1
    done
    it_show "$IT_TMP/$label.err"
    it_fail "the game service did not start serving within 30s"
}

# it_is_child PID PARENT: PID is alive and PARENT's child (so that it cannot be a reused pid).
it_is_child() {
    [ -n "$1" ] && [ -n "$2" ] && [ "$(ps -o ppid= -p "$1" 2>/dev/null | tr -d ' ')" = "$2" ]
}

# it_service_running: the service started last still runs.
it_service_running() {
    it_is_child "$IT_SERVICE_PID" "$IT_SERVICE_TIMEOUT" && it_is_child "$IT_SERVICE_TIMEOUT" "$IT_SERVICE_JOB"
}

# it_service_signal SIGNAL: sends SIGNAL (STOP, CONT, KILL, ...) to the running service.
it_service_signal() {
    it_service_running || it_fail "it_service_signal $1: the game service is not running"
    kill -s "$1" "$IT_SERVICE_PID"
    # Delivery is asynchronous: wait until a stopped service really is stopped (state T).
    if [ "$1" = STOP ]; then
        local i
        for ((i = 0; i < 100; i++)); do
            [ "$(awk '{print $3}' "/proc/$IT_SERVICE_PID/stat" 2>/dev/null)" = T ] && return 0
            sleep 0.05
        done
        it_fail "the game service did not stop"
    fi
}

# it_service_stop: resumes and terminates the service if it still runs (SIGKILL after 20s), and reaps
# it. Sets IT_SERVICE_RC: its exit status (0 after a clean stop, 128+N when signal N ended it).
it_service_stop() {
    [ -n "$IT_SERVICE_JOB" ] || return 0
    local i
    if it_service_running; then
        # Straight to the service, not through `timeout`, which would signal its whole process group:
        # LeakSanitizer's helper process (sanitizer builds) included, which can then hang the exit.
        kill -s CONT "$IT_SERVICE_PID" 2>/dev/null
        kill -s TERM "$IT_SERVICE_PID" 2>/dev/null
        for ((i = 0; i < 200; i++)); do
            it_service_running || break
            sleep 0.1
        done
        it_service_running && kill -s KILL "$IT_SERVICE_PID" 2>/dev/null
    fi
    wait "$IT_SERVICE_JOB" 2>/dev/null
    IT_SERVICE_RC=$(cat "${IT_SERVICE_LOG%.log}.status" 2>/dev/null)
    IT_SERVICE_RC=${IT_SERVICE_RC:-255}
    IT_SERVICE_JOB=
    IT_SERVICE_TIMEOUT=
    IT_SERVICE_PID=
}

# it_service_push LABEL RECORD: hands RECORD to the layers registered for its package, through the
# running service; output in $IT_TMP/LABEL.out and .err. Sets IT_RC (0: delivered, 1: no layer took it).
it_service_push() {
    local label=$1 record=$2
    timeout -k 5 60 "$IT_BUILD/zovk-gameservice" push "$record" >"$IT_TMP/$label.out" 2>"$IT_TMP/$label.err"
    IT_RC=$?
}

# ==== Validation with an allowlist ============================================================
# For scenarios whose layer build does, on purpose, what the validation layer reports: the few
# violations that the required behaviour itself implies are listed by VUID in an allowlist file,
# one id per line followed by one comment line (#) saying which behaviour causes it.

# it_allowlist_ids FILE: the ids of an allowlist, one per line.
it_allowlist_ids() { grep -Ev '^[[:space:]]*(#|$)' "$1" | awk '{ print $1 }'; }

# it_expect_no_validation_except ALLOWLIST CONTEXT: every message in the validation log carries an id of
# ALLOWLIST, then removes the log for the next run. A message is a line that does not start with a blank
# and the indented lines after it (its object list); one without an id is never allowed. The allowed
# messages seen are counted on stderr.
it_expect_no_validation_except() {
    local allowlist=$1 context=$2 ids unexpected
    [ -f "$allowlist" ] || it_fail "no validation allowlist $allowlist"
    if [ -s "$IT_VVL_LOG" ]; then
        ids=$(it_allowlist_ids "$allowlist")
        unexpected=$(awk -v ids="$ids" '
            BEGIN { n = split(ids, list, "\n"); for (i = 1; i <= n; i++) ok[list[i]] = 1 }
            /^[[:space:]]*$/ { next }
            /^[^[:space:]]/ {
                allowed = 0
                if (match($0, /\[ (VUID|UNASSIGNED)-[^ ]+ \]/)) allowed = (substr($0, RSTART + 2, RLENGTH - 4) in ok)
            }
            !allowed { print }' "$IT_VVL_LOG")
        if [ -n "$unexpected" ]; then
            printf '[%s] validation messages outside %s by id:\n' "$IT_NAME" "$(basename "$allowlist")" >&2
            printf '%s\n' "$unexpected" | grep -Eo '\[ (VUID|UNASSIGNED)-[^ ]+ \]' | sort | uniq -c >&2
            printf '[%s] ---- first 30 of them ----\n' "$IT_NAME" >&2
            printf '%s\n' "$unexpected" | head -n 30 >&2
            it_fail "$context: the validation layer reported errors or warnings outside the allowlist"
        fi
        printf '[%s] allowlisted validation messages by id:\n' "$IT_NAME" >&2
        grep -Eo '\[ (VUID|UNASSIGNED)-[^ ]+ \]' "$IT_VVL_LOG" | sort | uniq -c >&2
    fi
    rm -f "$IT_VVL_LOG"
}

# ---- a vkcube capture, replayed headless ------------------------------------------------------------
# gfxreconstruct 0.9.18: capture settings come from GFXRECON_* variables; the replayer takes --wsi
# headless, --screenshots N1,N2,... (1-based frames), --screenshot-dir, and writes screenshot_frame_N.bmp.

# it_capture_vkcube FRAMES: captures vkcube (capture layer only) and replays it plainly with screenshots
# of frames 1, 12, 24 and FRAMES into $IT_TMP/shots_plain. Sets IT_CAPTURE (the capture file),
# IT_REPLAY_ARGS (the replayer's options for another replay) and IT_REPLAY_FRAMES.
it_capture_vkcube() {
    IT_REPLAY_FRAMES=$1
    IT_CAPTURE=$IT_TMP/capture/vkcube.gfxr
    mkdir -p "$IT_TMP/capture" "$IT_TMP/shots_plain"
    it_start_xvfb
    it_run capture env VK_INSTANCE_LAYERS=VK_LAYER_LUNARG_gfxreconstruct GFXRECON_CAPTURE_FILE="$IT_CAPTURE" \
        GFXRECON_CAPTURE_FILE_TIMESTAMP=false GFXRECON_LOG_LEVEL=warning vkcube --c "$IT_REPLAY_FRAMES"
    it_expect_success capture
    it_stop_xvfb
    [ -s "$IT_CAPTURE" ] || it_fail "the capture layer wrote no capture file"
    IT_REPLAY_ARGS=(--wsi headless --screenshots "1,12,24,$IT_REPLAY_FRAMES" --log-level warning)
    it_run replay_plain gfxrecon-replay "${IT_REPLAY_ARGS[@]}" --screenshot-dir "$IT_TMP/shots_plain" "$IT_CAPTURE"
    it_expect_success replay_plain
}

# it_expect_same_replay LABEL SHOT_DIR WHAT: the replay run as LABEL (it_run) with its screenshots in
# SHOT_DIR added no replayer warning or error to the plain replay's, and wrote the same four screenshots,
# byte for byte. The replayer reports calls whose result differs from the capture as warnings or errors.
it_expect_same_replay() {
    local label=$1 shots=$2 what=$3 added plain_list other_list f
    replay_problems() {
        cat "$IT_TMP/$1.out" "$IT_TMP/$1.err" | grep -E '\[gfxrecon\] (WARNING|ERROR|FATAL)' | sort -u
    }
    added=$(comm -13 <(replay_problems replay_plain) <(replay_problems "$label"))
    if [ -n "$added" ]; then
        printf '%s\n' "$added" >&2
        it_fail "the replay through $what logged warnings or errors that the plain replay does not"
    fi
    plain_list=$(cd "$IT_TMP/shots_plain" && ls)
    other_list=$(cd "$shots" && ls)
    [ "$(echo "$plain_list" | wc -l)" -eq 4 ] || it_fail "expected 4 plain screenshots, got: $(it_words "$plain_list")"
    [ "$plain_list" = "$other_list" ] ||
        it_fail "the replays wrote different screenshot sets: plain [$(it_words "$plain_list")], through $what [$(it_words "$other_list")]"
    # The cube turns from frame to frame: identical first and last frames mean nothing was rendered.
    cmp -s "$IT_TMP/shots_plain/screenshot_frame_1.bmp" "$IT_TMP/shots_plain/screenshot_frame_$IT_REPLAY_FRAMES.bmp" &&
        it_fail "frames 1 and $IT_REPLAY_FRAMES of the plain replay are identical: the capture does not render"
    for f in $plain_list; do
        cmp "$IT_TMP/shots_plain/$f" "$shots/$f" >&2 ||
            it_fail "screenshot $f differs between the plain replay and the replay through $what"
    done
}
