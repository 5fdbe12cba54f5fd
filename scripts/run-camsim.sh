#!/usr/bin/env bash
# Builds the camera simulator, the media tool and the cloud service (vexo-cloud, for the
# README's "The cloud on the network"), runs the simulator on the bundled sample
# with the embedded cloud in ./vexo-data (about a minute: a camera playing the sample, the
# module recording two motion events), then exports every recording the cloud received to a
# playable MP4 file in ./vexo-data/export and decodes each with ffmpeg (exit status 1 when
# one does not decode cleanly). Installs what is missing first (VEXO_SKIP_INSTALL=1 skips
# that).
#
#   scripts/run-camsim.sh [vexo-camsim options...]     e.g. --mode alltime --duration 30
#
# Environment: VEXO_DATA=dir (default ./vexo-data; its cloud and camera store are replaced).
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
DATA="${VEXO_DATA:-${PWD}/vexo-data}"
BUILD="${ROOT}/build/release"

if [[ "${VEXO_SKIP_INSTALL:-0}" != 1 ]]; then
    bash "${ROOT}/scripts/install-deps.sh"
fi
cmake -S "${ROOT}" -B "${BUILD}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_BUILD_TESTS=OFF >/dev/null
cmake --build "${BUILD}" --target vexo-camsim vexo-media vexo-cloud --parallel 2

# A fresh start: the previous run's recordings, camera store and exports go.
rm -rf "${DATA}/cloud" "${DATA}/camera" "${DATA}/export"
"${BUILD}/tools/camsim/vexo-camsim" --data "${DATA}" "$@"

echo
"${BUILD}/tools/media/vexo-media" ls --data "${DATA}/cloud"
"${BUILD}/tools/media/vexo-media" verify --data "${DATA}/cloud"
"${BUILD}/tools/media/vexo-media" export --data "${DATA}/cloud" --all --out-dir "${DATA}/export"
echo
echo "Exported recordings (play them with any video player, e.g. ffplay or VLC):"
broken=0
for f in "${DATA}"/export/*; do
    [[ -e "${f}" ]] || continue
    summary="$(ffprobe -v error -show_entries format=duration -show_entries stream=codec_name \
        -of csv=p=0 "${f}" | paste -sd ' ' -)"
    # Decoded through once: what ffmpeg complains about would show in a player too.
    if errors="$(ffmpeg -nostdin -v error -i "${f}" -f null - 2>&1)" && [[ -z "${errors}" ]]; then
        echo "  ${f}  (${summary}; decodes cleanly)"
    else
        echo "  ${f}  (${summary}; ffmpeg does NOT decode it cleanly:)"
        printf '%s\n' "${errors:-ffmpeg failed}" | head -n 10 | sed 's/^/    /'
        broken=1
    fi
done
exit "${broken}"
