# Run on every build by kelvane_add_model():
#   cmake -DMODEL_DIR=<dir> -DSTAMP=<file> -P KelvaneModelStamp.cmake
# Writes STAMP, a digest of the directory's entry names and of the contents
# of its regular files, only when that digest changed. The conversion
# depends on STAMP alone, so it runs again whenever the contents change,
# whatever the files' timestamps say (a file replaced by an older one with
# cp -p, an unpacked archive), and not otherwise. The names are read by the
# shell, so any byte a file name may hold (';' included, which would split
# a CMake list) reaches the converter, which says what it thinks of it.
cmake_minimum_required(VERSION 3.21)
execute_process(
  COMMAND sh -c [[cd "$1" || exit 1
ls -A | LC_ALL=C sort | while IFS= read -r f; do
  printf '%s\n' "$f"
  if [ -f "$f" ] && [ ! -p "$f" ]; then sha256sum < "$f" || exit 1; fi
done]] sh "${MODEL_DIR}"
  OUTPUT_VARIABLE listing
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  # An unreadable directory: let the converter say why.
  string(RANDOM LENGTH 16 listing)
endif()
string(SHA256 digest "${listing}")
set(old "")
if(EXISTS "${STAMP}")
  file(READ "${STAMP}" old)
endif()
if(NOT old STREQUAL digest)
  file(WRITE "${STAMP}" "${digest}")
endif()
