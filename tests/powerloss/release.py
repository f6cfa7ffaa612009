"""An installed release, a package that upgrades it, and what the tree has to be. Without vfilelist's code."""
import os
import stat
from pathlib import Path

OLD = {  # name: content, mode, owner, note
    "bin/changed": (b"old\n" * 700, 0o750, 1001, b"a\0b"),
    "bin/unchanged": (b"the same\n" * 600, 0o644, 0, None),
    "bin/emptied": (b"not empty\n", 0o6755, 0, None),
    "bin/unlisted": (b"nobody's business\n", 0o600, 1002, None),
    "lib/filled": (b"", 0o400, 0, b""),
}
NEW = {  # name: content, mode in the package
    "bin/changed": (b"new\n" * 10000, 0o755),
    "bin/unchanged": (b"the same\n" * 600, 0o755),
    "bin/emptied": (b"", 0o644),
    "lib/filled": (b"it is not empty any more\n" * 300, 0o644),
    "lib/added": (b"of a file that is new\n" * 200, 0o640),
    "made/deep/added": (b"in a directory that is new\n" * 100, 0o755),
}


def install_old(targets):
    for name, (content, mode, owner, note) in OLD.items():
        path = Path(targets, name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        os.chown(path, owner, owner)
        os.chmod(path, mode)
        if note is not None:
            os.setxattr(path, "user.note", note)


def write_package(package, targets):
    for name, (content, mode) in NEW.items():
        path = Path(package, "Common", name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        os.chmod(path, mode)
    lists = {}
    for name in NEW:
        lists.setdefault(os.path.dirname(name), []).append(name)
    lines = ["[Package_Intall_Type]", "PackageIntallType=Server", "[Server]"]
    lines += [f"List{number}={targets}/{directory}" for number, directory in enumerate(lists)]
    for number, names in enumerate(lists.values()):
        lines += [f"[List{number}]", "files=" + ",".join(names)]
    Path(package, "filelist.ini").write_text("\n".join(lines) + "\n")


def snapshot(targets):
    """All that is below a directory as a value: kind and mode, owner, content, attributes of each."""
    tree = {}
    for directory, names, files in os.walk(targets):
        for name in names + files:
            path = os.path.join(directory, name)
            status = os.lstat(path)
            content = Path(path).read_bytes() if stat.S_ISREG(status.st_mode) else None
            attributes = {key: os.getxattr(path, key) for key in os.listxattr(path)}
            node = status.st_mode, status.st_uid, status.st_gid, content, attributes
            tree[os.path.relpath(path, targets)] = node
    return tree


def expected_new(old_tree):
    """After commit: a successor has the mode, owner and attributes of the old file, a new file the package's
    mode."""
    tree = dict(old_tree)
    for name, (content, mode) in NEW.items():
        for parent in list(Path(name).parents)[:-1]:
            tree.setdefault(str(parent), (stat.S_IFDIR | 0o750, 0, 0, None, {}))
        mode, user, group, _, attributes = old_tree.get(name, (stat.S_IFREG | mode, 0, 0, None, {}))
        tree[name] = (mode, user, group, content, attributes)
    return tree


def expected_installed(old_tree):
    """After upgrade: the new files, and the old ones as backups."""
    backups = {name + ".bak": old_tree[name] for name in NEW if name in old_tree}
    return expected_new(old_tree) | backups


def differences(expected, actual):
    def text(node):
        if node is None:
            return "missing"
        mode, user, group, content, attributes = node
        return f"{oct(mode)} {user}:{group} {content and content[:20]} {attributes}"

    return [f"{name}: {text(actual.get(name))} instead of {text(expected.get(name))}"
            for name in sorted(expected.keys() | actual.keys()) if expected.get(name) != actual.get(name)]
