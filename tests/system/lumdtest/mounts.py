"""Folders of its own for a program that names its paths."""


def own_mounts(folders):
    """A command prefix for which each of these paths, in their order, is that folder."""
    binds = "".join('mount --bind "$1" "$2" && shift 2 && ' for _ in folders)
    pairs = [str(name) for path, folder in folders.items() for name in (folder, path)]
    return ["unshare", "--user", "--map-root-user", "--mount", "sh", "-c", f'{binds}exec "$@"', "sh",
            *pairs]
