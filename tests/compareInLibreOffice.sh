#!/usr/bin/env bash
# Packs and unpacks the documents of the corpus and shows that LibreOffice makes as many pages of the results as of the
# originals. `./run office` calls it with all that it needs installed and built.
set -euo pipefail
cd "$(dirname "$0")/.."

opctext=$(realpath build/release/opctext/opctext)
corpus=$(realpath tests/data/corpus)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Documents that LibreOffice itself does not load: the names of some of their parts were changed for the corpus.
is_unreadable() {
    case $1 in
    docx-content-types-case.docx | docx-non-ascii-names.docx) return 0 ;;
    *) return 1 ;;
    esac
}

# count_pages DOCUMENT FOLDER: prints the number of pages of the PDF that LibreOffice makes of it, or "no PDF"
count_pages() {
    local document=$1
    local folder=$2
    local name
    name=$(basename "$document")
    mkdir -p "$folder"
    timeout 180 soffice "-env:UserInstallation=file://$folder/profile" --headless --convert-to pdf --outdir "$folder" \
        "$document" >"$folder/log" 2>&1 || true
    if [ -s "$folder/${name%.*}.pdf" ]; then
        pdfinfo "$folder/${name%.*}.pdf" | awk '/^Pages:/ { print $2 }'
    else
        echo "no PDF"
    fi
}

failures=0
unreadable=0
documents=0
for original in "$corpus"/*.{docx,docm,xlsx,xlsm,pptx,pptm}; do
    [ -e "$original" ] || continue
    name=$(basename "$original")
    folder=$work/$name
    mkdir -p "$folder"
    documents=$((documents + 1))
    if ! "$opctext" pack "$original" -o "$folder/$name.txt" || ! "$opctext" unpack "$folder/$name.txt"; then
        echo "FAILED     $name: not packed and unpacked"
        failures=$((failures + 1))
        continue
    fi
    expected=$(count_pages "$original" "$folder/original")
    actual=$(count_pages "$folder/$name" "$folder/result")
    if [ "$expected" = "$actual" ] && [ "$expected" != "no PDF" ]; then
        echo "same       $name: $expected pages"
    elif [ "$expected" = "$actual" ] && is_unreadable "$name"; then
        echo "unreadable $name: LibreOffice loads neither the original nor the result"
        unreadable=$((unreadable + 1))
    else
        echo "DIFFERENT  $name: $expected pages in the original, $actual in the result"
        failures=$((failures + 1))
    fi
    rm -rf "$folder"
done

echo "$documents documents: $((documents - failures - unreadable)) the same, $unreadable unreadable, $failures failed"
[ "$documents" -gt 0 ] && [ "$failures" -eq 0 ]
