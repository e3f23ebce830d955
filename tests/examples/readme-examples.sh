#!/usr/bin/env bash
# readme-examples.sh [--stage PREFIX | --installed] [--pam-dir DIR] [--cmake-install BUILD]
#
# Builds and runs the host example of README.md from README's own text, so that the text a
# reader copies is the text that was tested.  Each fenced block that follows a line
#     <!-- example: FILE -->
# is written to FILE in a scratch directory (app.cpp, CMakeLists.txt, the shell steps), and the
# block after <!-- example-output --> is what each run of the program must print.  Then, in
# that directory:
#   --stage PREFIX  (a `cmake --install` of the library, e.g. build/stage): staged.sh with
#                   TVC_STAGE=PREFIX, which builds the program with pkg-config and with CMake;
#   --cmake-install BUILD: the same against a fresh install of the build tree BUILD;
#   --installed     (the library installed as a package): installed.sh, the same two builds
#                   with no path given;
# and then run.sh, which runs both programs on the sample device (TVC_SOURCE is this checkout,
# TVC_PAM_DIR the sample device's PAM modules: --pam-dir, or the default build's).
# Exits 77 (skipped) when no sandbox can be built, unless CI=true, where that is a failure.
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/../.." && pwd)
readme=$source_dir/README.md
mode= prefix= build=
pam_dir=$source_dir/build/default/tools/sampledevice/pam
while (($#)); do
    case $1 in
    --stage) mode=staged prefix=$(realpath "$2") && shift ;;
    --cmake-install) mode=staged build=$(realpath "$2") && shift ;;
    --installed) mode=installed ;;
    --pam-dir) pam_dir=$(realpath "$2") && shift ;;
    *) echo "readme-examples: unknown argument $1" >&2 && exit 2 ;;
    esac
    shift
done
[[ -n $mode ]] || { echo "readme-examples: --stage PREFIX, --cmake-install BUILD or --installed" >&2 && exit 2; }

if ! reason=$("$source_dir/tools/sandbox/tvc-sandbox" -- true 2>&1); then
    echo "readme-examples: $reason"
    [[ ${CI-} == true ]] && exit 1
    exit 77
fi

scratch=$(mktemp -d "${TMPDIR:-/tmp}/readme-examples.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
if [[ -n $build ]]; then
    prefix=$scratch/stage
    cmake --install "$build" --prefix "$prefix" >/dev/null
fi

# Every marked block into its file; the output block into expected.
awk -v dir="$scratch" '
    /^<!-- example: [^ ]+ -->$/ { file = dir "/" $3; want = 1; next }
    /^<!-- example-output -->$/ { file = dir "/expected"; want = 1; next }
    want && /^```/ { want = 0; inside = 1; printf "" >file; next }
    inside && /^```$/ { inside = 0; close(file); next }
    inside { print >file }
' "$readme"
for file in app.cpp CMakeLists.txt staged.sh installed.sh run.sh expected; do
    [[ -s $scratch/$file ]] || { echo "readme-examples: README has no example block $file" >&2 && exit 1; }
done

cd "$scratch"
export TVC_SOURCE=$source_dir TVC_PAM_DIR=$pam_dir TVC_STAGE=$prefix
# The build steps, then the runs; each run's output must be the README's.
bash -euo pipefail -c "source ./$mode.sh >build.log 2>&1 || { cat build.log; exit 1; }; source ./run.sh" >actual 2>run.log || {
    echo "readme-examples: the $mode example failed" >&2
    cat run.log actual >&2
    exit 1
}
runs=$(grep -c -- '-- ./' run.sh)
for ((i = 0; i < runs; i++)); do cat expected; done >expected.all
if ! diff -u expected.all actual; then
    echo "readme-examples: the program's output differs from README's" >&2
    exit 1
fi
echo "readme-examples: the $mode example built with pkg-config and CMake and ran $runs times as README shows"
