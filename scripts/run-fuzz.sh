#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer + UndefinedBehaviorSanitizer) and runs each for a
# few seconds on a copy of its seed corpus, so the repository is never written. FUZZ_SECONDS changes the time
# of the decoders' targets, PARSER_FUZZ_SECONDS that of the parsers' (answers, files, URLs), which are quick.
# Inputs that crash are kept in build/fuzz/artifacts/.
set -euo pipefail
seconds=${FUZZ_SECONDS:-10}
parser_seconds=${PARSER_FUZZ_SECONDS:-3}
cd "$(dirname "$0")/.."

cmake --preset fuzz >/dev/null
parsers=(plain_json_fuzzer manifest_fuzzer mirror_list_fuzzer login_answer_fuzzer invasion_feed_fuzzer status_answer_fuzzer url_fuzzer
         form_encoder_fuzzer saved_login_file_fuzzer settings_fuzzer string_table_fuzzer)
cmake --build --preset fuzz -j2 --target patch_fuzzer bzip2_to_file_fuzzer bzip2_block_fuzzer bzip2_stream_fuzzer unzip_fuzzer \
  "${parsers[@]}" \
  launcher_manifest_fuzzer

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"

fuzz() {
  local target=$1 corpus=$2
  shift 2
  local time=${FUZZ_TIME:-$seconds}
  rm -rf "${work:?}/$corpus"
  cp -r "fuzz/corpus/$corpus" "$work/$corpus"
  echo "== $target ($time s)"
  "build/fuzz/fuzz/$target" "$work/$corpus" -max_total_time="$time" -rss_limit_mb=2048 -timeout=60 \
    -artifact_prefix="$artifacts/$target-" -print_final_stats=1 "$@"
}

fuzz patch_fuzzer patch -dict=fuzz/patch.dict
fuzz bzip2_to_file_fuzzer bzip2
fuzz bzip2_block_fuzzer bzip2
fuzz bzip2_stream_fuzzer bzip2
fuzz unzip_fuzzer zip -max_len=8192
fuzz launcher_manifest_fuzzer manifest -max_len=4096
fuzz plain_json_fuzzer manifest -dict=fuzz/json.dict -max_len=4096
FUZZ_TIME=$parser_seconds fuzz manifest_fuzzer manifest -dict=fuzz/json.dict
FUZZ_TIME=$parser_seconds fuzz mirror_list_fuzzer mirrors -dict=fuzz/json.dict
FUZZ_TIME=$parser_seconds fuzz login_answer_fuzzer login -dict=fuzz/json.dict
FUZZ_TIME=$parser_seconds fuzz invasion_feed_fuzzer invasions -dict=fuzz/json.dict
FUZZ_TIME=$parser_seconds fuzz status_answer_fuzzer status -dict=fuzz/json.dict
FUZZ_TIME=$parser_seconds fuzz url_fuzzer url -dict=fuzz/url.dict
FUZZ_TIME=$parser_seconds fuzz form_encoder_fuzzer form -dict=fuzz/url.dict
FUZZ_TIME=$parser_seconds fuzz saved_login_file_fuzzer saved-logins -dict=fuzz/json.dict
FUZZ_TIME=$parser_seconds fuzz settings_fuzzer settings -dict=fuzz/json.dict
FUZZ_TIME=$parser_seconds fuzz string_table_fuzzer strings -dict=fuzz/json.dict
echo "fuzzing: no failures"
