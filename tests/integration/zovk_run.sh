#!/usr/bin/env bash
# The run command end to end: the bundled Star Rail scene with the game service and its
# pushes, then vkcube the same way; each report and summary must say what happened.
set -u -o pipefail
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require python3 vkcube Xvfb
RUN=$(cd "$(dirname "$0")/../.." && pwd)/tools/zovk-run

# The run command is Python: run it without it_run's sanitizer preload (it preloads the
# runtime into the program it runs by itself).
run_tool() {
    local label=$1
    shift
    timeout -k 10 "$IT_TIMEOUT" "$@" >"$IT_TMP/$label.out" 2>"$IT_TMP/$label.err"
    IT_RC=$?
}

# summary FILE EXPRESSION: a Python expression over the summary `s` must hold.
summary() {
    python3 -c 'import json, sys; s = json.load(open(sys.argv[1])); sys.exit(0 if eval(sys.argv[2]) else 1)' "$1" "$2" ||
        it_fail "summary $(basename "$(dirname "$1")"): $2 does not hold"
}

run_tool scene "$RUN" --build "$IT_BUILD" --out "$IT_TMP/scene" --validation --frames 30 \
    --push '1:1 {pkg} 1058' --push '10:6 {pkg} 2'
it_expect_success scene
grep -q 'recognised as application type 2' "$IT_TMP/scene.out" || it_fail "scene: the report does not name the application"
S=$IT_TMP/scene/summary.json
summary "$S" 's["exitCode"] == 0 and s["layer"]["configurationFetched"] and s["layer"]["callbackRegistered"]'
summary "$S" 's["layer"]["servedApiVersion"] == "1.2" and s["layer"]["deviceServed"]'
summary "$S" 'any("ParseGameSceneId: 1058" in u for u in s["layer"]["stateUpdates"])'
summary "$S" 'any("parseVkVrsSwitch: 2" in u for u in s["layer"]["stateUpdates"])'
ALLOWED=$(grep -E '^(VUID|UNASSIGNED)-' "$(dirname "$0")/validation_allowlist.txt" | tr '\n' ' ')
summary "$S" 's["trace"]["frames"] == 30 and "frame.png" in s["pngs"]'
summary "$S" 'set(s["validationMessagesById"]) <= set("'"$ALLOWED"'".split())'
# The VRS module worked: substituted passes, rates, shading-rate images written out.
summary "$S" 's["starRail"]["totals"]["substitutedMainBegins"] > 0 and s["starRail"]["totals"]["attachmentRates"] > 0'
summary "$S" 'len(s["starRail"]["imagePngs"]) >= 2 and all(p in s["pngs"] for p in s["starRail"]["imagePngs"])'
grep -q 'fragment work saved at level 2' "$IT_TMP/scene.out" || it_fail "scene: the report gives no fragment-work figure"
summary "$S" 'any("scene-report 1 {\"sceneId\":10005}" in l for l in s["gameService"])'

run_tool vkcube "$RUN" --build "$IT_BUILD" --out "$IT_TMP/vkcube" --validation --push none -- vkcube --c 50
it_expect_success vkcube
V=$IT_TMP/vkcube/summary.json
summary "$V" 's["exitCode"] == 0 and s["program"][0] == "vkcube" and s["layer"]["applicationType"] == 2'
summary "$V" 's["trace"]["frames"] == 50 and set(s["validationMessagesById"]) <= set("'"$ALLOWED"'".split())'
# vkcube's passes are not Star Rail's: the module makes its images but substitutes nothing.
summary "$V" 's["starRail"]["totals"]["substitutedMainBegins"] == 0 and not s["starRail"]["substitutes"]["renderPasses"]'
it_log "pass"
