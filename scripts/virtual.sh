# shellcheck shell=bash
# A virtual machine's kernel and its first file system, in the current folder: this machine's own
# kernel from its package (kernel/), and initrd.gz with what is needed to find the rest.

# The kernel whose version stands in kernel/version afterwards; nothing when it is there.
fetch_kernel() {
    [ ! -e kernel/version ] || return 0
    local package version
    package=$(apt-cache depends linux-image-amd64 |
        sed -n 's/.*Depends: \(linux-image-[^ ]*\)$/\1/p' | head -n 1)
    version=${package#linux-image-}
    rm -rf kernel
    mkdir kernel
    (cd kernel && apt-get download -qq "$package" 2>/dev/null)
    dpkg-deb --fsys-tarfile kernel/*.deb | tar -x -C kernel
    rm kernel/*.deb
    depmod -b kernel "$version"
    echo "$version" >kernel/version
}

# begin_initrd PROGRAM...: initrd/, with these programs of this machine.
begin_initrd() {
    local name
    rm -rf initrd
    mkdir -p initrd/{bin,m,proc,sys,dev,new}
    for name in "$@"; do
        put_program "$name"
    done
}

# A program of this machine with its libraries.
put_program() {
    local file
    install -D "$(command -v "$1")" initrd/bin/"$1"
    for file in $(ldd "initrd/bin/$1" 2>/dev/null | grep -o '/[^ ]*'); do
        install -D "$file" "initrd$file"
    done
}

# put_modules NAME...: modules with what they need, in initrd/m, and initrd/order: the guest loads
# no module by itself. What the kernel has built in is left out.
put_modules() {
    local version file name
    version=$(cat kernel/version)
    for name in "$@"; do
        modprobe -d kernel -S "$version" --show-depends "$name" | awk '/^insmod/ { print $2 }'
    done | awk '!seen[$0]++' >order
    while read -r file; do
        name=$(basename "${file%.xz}")
        case $file in
            *.xz) xz -dc "$file" >"initrd/m/$name" ;;
            *) cp "$file" "initrd/m/$name" ;;
        esac
        echo "$name" >>initrd/order
    done <order
}

# finish_initrd: /init is the standard input; initrd.gz.
finish_initrd() {
    cat >initrd/init
    chmod +x initrd/init
    (cd initrd && find . | cpio -o -H newc --quiet | gzip -1) >initrd.gz
}
