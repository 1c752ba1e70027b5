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

# make_root RELEASE FOLDER PACKAGE...: FOLDER/root, of that release, with these packages.
make_root() {
    local release=$1 folder=$2
    shift 2
    rm -rf --one-file-system "$folder/root" "$folder/sources"
    translate_sources "$release" "$folder/sources"
    apt-config dump | grep -E '^Acquire::(https?|Check-|Languages)' >"$folder/apt.conf" || true
    mmdebstrap --variant=apt --include="$(IFS=, && echo "$*")" --aptopt="$folder/apt.conf" \
        --dpkgopt=force-unsafe-io "$release" "$folder/root" "$folder/sources"/*
}
