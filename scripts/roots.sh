# shellcheck shell=bash
# Roots of Debian releases, made by mmdebstrap from wherever this machine has its own packages.

codename=$(. /etc/os-release && echo "$VERSION_CODENAME")

# translate_sources RELEASE FOLDER: this machine's package sources, translated to that release; what
# is not of this machine's own release is left out.
translate_sources() {
    local release=$1 folder=$2 file
    mkdir -p "$folder"
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ ! -e "$file" ] || sed -nE "s/^(deb (\[[^]]*\] +)?[^ ]+ +)$codename(-[a-z]+)? /\1$release\3 /p" \
            "$file" >"$folder/${file##*/}"
    done
    for file in /etc/apt/sources.list.d/*.sources; do
        [ ! -e "$file" ] || awk -v RS= -v ORS='\n\n' "/\nSuites:[^\n]* $codename/" "$file" |
            sed "/^Suites:/s/\<$codename\>/$release/g" >"$folder/${file##*/}"
    done
    find "$folder" -type f -empty -delete
}

# copy_tracked FOLDER [PATH...]: files of the tree, new ones too.
copy_tracked() {
    local folder=$1
    shift
    mkdir -p "$folder"
    git ls-files -z --cached --others --exclude-standard "$@" | xargs -0 cp --parents -t "$folder"
}

# dependencies FILE...: the names of what these packages depend on, without one another.
dependencies() {
    local file own=()
    for file in "$@"; do
        own+=("$(dpkg-deb -f "$file" Package)")
    done
    for file in "$@"; do
        dpkg-deb -f "$file" Depends | tr ',' '\n' | sed 's/[|(:].*//; s/ //g'
    done | sort -u | grep -vxE "$(IFS='|' && echo "${own[*]}")"
}

# make_root RELEASE FOLDER [--OPTION...] PACKAGE...: FOLDER/root, of that release, with these
# packages; options are those of mmdebstrap.
make_root() {
    local release=$1 folder=$2 options=()
    shift 2
    while [[ ${1:-} == --* ]]; do
        options+=("$1")
        shift
    done
    rm -rf --one-file-system "$folder/root" "$folder/sources"
    translate_sources "$release" "$folder/sources"
    apt-config dump | grep -E '^Acquire::(https?|Check-|Languages)' >"$folder/apt.conf" || true
    mmdebstrap --variant=apt --include="$(IFS=, && echo "$*")" --aptopt="$folder/apt.conf" \
        --dpkgopt=force-unsafe-io "${options[@]}" "$release" "$folder/root" "$folder/sources"/*
}
