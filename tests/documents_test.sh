#!/bin/bash
# The code that the documents show is the code of the examples. A block of code that follows a line
#   <!-- from PATH -->
# is, as it stands, a part of that file; with "all of" before PATH it is the whole file.
# The links of the documents to files of this repository lead somewhere.
# usage: tests/documents_test.sh [BUILD]
# With the folder of a build whose programs run here, the README's command for its first program and all
# commands of docs/TRY.md and docs/OVERLAYS.md are run, too, and print what the documents say.
set -euo pipefail
build=${1:+$(readlink -f "$1")}
cd "$(dirname "$0")/.."

checked=0
failed=0

complain() {
  echo "$1" >&2
  failed=1
}

compare() {
  local extent=$1 path=$2 code=$3 text
  checked=$((checked + 1))
  if [[ ! -r $path ]]; then
    complain "$document: shows code of $path, which is not there"
    return
  fi
  text=$(<"$path")$'\n'
  if [[ $extent == all ]]; then
    [[ $text == "$code" ]] || complain "$document: the block is not all of $path"
  else
    [[ $text == *"$code"* ]] || complain "$document: the block is no part of $path"
  fi
}

code_blocks() {
  local line extent='' path='' code='' inside=
  while IFS= read -r line; do
    if [[ $inside ]]; then
      if [[ $line == '```' ]]; then
        compare "$extent" "$path" "$code"
        path='' inside=''
      else
        code+=$line$'\n'
      fi
    elif [[ $line =~ ^'<!-- from '('all of ')?([^ ]+)' -->'$ ]]; then
      extent=${BASH_REMATCH[1]:+all} path=${BASH_REMATCH[2]}
    elif [[ $path && $line == '```'* ]]; then
      inside=yes code=''
    fi
  done
  [[ -z $path ]] || complain "$document: no block of code for $path"
}

links() {
  local target
  while IFS= read -r target; do
    target=${target%%#*}
    [[ -n $target ]] || continue
    checked=$((checked + 1))
    [[ -e $(dirname "$document")/$target ]] || complain "$document: no file $target"
  done < <(grep -oE '\]\([^) ]+\)' | sed -E 's/^\]\((.*)\)$/\1/' | grep -v '://' || true)
}

first_program() {
  local command promised said=
  command=$(grep -E '^    examples/private_world .*first_binding' README.md) || true
  # shellcheck disable=SC2016  # no command in these backquotes
  promised=$(sed -n 's/^It prints `\([^`]*\)`.*/\1/p' README.md)
  checked=$((checked + 1))
  said=$(eval "${command//build\//$build/}" 2>/dev/null) ||
    complain "README.md: its command for the first program ended with status $?"
  grep -qxF -- "${promised:-nothing}" <<<"$said" ||
    complain "README.md: the first program prints '$said', not '$promised'"
}

# Process numbers, dates and seconds differ from run to run.
alike() {
  sed -E 's/process [0-9]+/process N/; s/[0-9-]{10} [0-9:]{8}/DATE/; s/[0-9]+ s( left)?(:|$)/N s\1\2/'
}

# page DOCUMENT COMMAND: what stands before the first command of the document.
page() {
  local script
  script=$(mktemp)
  {
    printf '$ %s\n' "$2"
    sed -n 's/^    //p' "$1"
  } >"$script"
  checked=$((checked + 1))
  diff -u -L "$1" -L said <(alike <"$script") \
    <(timeout 120 examples/private_world tests/scctl_test.sh --inside "$script" "$build" 2>&1 | alike) ||
    complain "$1: its commands print something else"
  rm "$script"
}

for document in *.md */README.md docs/*.md; do
  code_blocks <"$document"
  links <"$document"
done
[[ -z $build ]] || first_program
[[ -z $build ]] || page docs/TRY.md :
# shellcheck disable=SC2016  # scctl_test.sh has the variable
[[ -z $build ]] || page docs/OVERLAYS.md 'cp "$root"/examples/vendor/vendor.[chj]* .; scctl init --all'
[[ $checked -gt 0 ]] || complain "nothing was checked"
echo "$checked blocks and links checked"
exit "$failed"
