"""The server's side of the data: what is really there, whoever wrote it."""
import hashlib
import os
import shutil

from comparison import content
from comparison.processes import Failure


class FolderStore:
    """What a server serves from a folder of this machine."""

    poll_seconds = 0.005

    def __init__(self, root):
        self.root = root

    def fill(self, folder, sizes):
        if os.path.realpath(folder) != os.path.realpath(self.root):
            raise Failure("a served folder is made in its place")

    def path(self, name):
        return f"{self.root}/{name}"

    def size(self, name):
        try:
            return os.stat(self.path(name)).st_size
        except OSError:
            return None

    def equals(self, name, local):
        return self.size(name) is not None and content.same_bytes(self.path(name), local)

    def tree(self, name):
        """Size of each file below a folder, by its path from there."""
        sizes = {}
        for folder, _, files in os.walk(self.path(name)):
            for file in files:
                path = os.path.join(folder, file)
                try:
                    sizes[os.path.relpath(path, self.path(name))] = os.lstat(path).st_size
                except OSError:
                    continue
        return sizes

    def is_gone(self, name):
        return not os.path.lexists(self.path(name))

    def put(self, name, local):
        shutil.copyfile(local, self.path(name))
        os.chmod(self.path(name), 0o666)

    def clear(self, name):
        """Empties a folder."""
        for entry in os.scandir(self.path(name)):
            if entry.is_dir(follow_symlinks=False):
                shutil.rmtree(entry.path)
            else:
                os.remove(entry.path)


class BucketStore:
    """What an S3 server keeps in a bucket. A folder is an empty object whose name ends with a slash."""

    poll_seconds = 0.02

    def __init__(self, bucket):
        self.bucket = bucket

    def fill(self, folder, sizes):
        self.bucket.create()
        folders, files = [], []
        for path, _, names in os.walk(folder):
            below = os.path.relpath(path, folder)
            if below != ".":
                folders.append(below + "/")
            files += [os.path.relpath(os.path.join(path, name), folder) for name in names]
        self.bucket.each(lambda key: self.bucket.put(key, b""), folders)
        self.bucket.each(lambda key: self.put(key, f"{folder}/{key}"), files)

    def size(self, name):
        return self.bucket.size(name)

    def equals(self, name, local):
        if self.size(name) != os.path.getsize(local):
            return False
        with open(local, "rb", buffering=0) as f:
            same = True

            def compare(piece):
                nonlocal same
                same = same and f.read(len(piece)) == piece

            self.bucket.checked("GET", name, sink=compare)
            return same and not f.read(1)

    def tree(self, name):
        found = self.bucket.list(name + "/")
        return {key[len(name) + 1:]: size for key, size in found.items() if not key.endswith("/")}

    def is_gone(self, name):
        return not self.bucket.list(name + "/") and self.size(name) is None

    def put(self, name, local):
        with open(local, "rb") as f:
            if os.path.getsize(local) < content.MIB:
                self.bucket.put(name, f.read())
            else:
                self.bucket.put(name, f)

    def clear(self, name):
        keys = [key for key in self.bucket.list(name + "/") if key != name + "/"]
        self.bucket.each(lambda key: self.bucket.checked("DELETE", key), keys)


class S3rverStore(BucketStore):
    """The files that s3rver keeps are written directly: by requests it would take minutes."""

    def __init__(self, bucket, root):
        super().__init__(bucket)
        self.root = root

    def fill(self, folder, sizes):
        for path, folders, names in os.walk(folder):
            target = os.path.join(self.root, os.path.relpath(path, folder))
            os.makedirs(target, exist_ok=True)
            for name in names:
                source, place = os.path.join(path, name), os.path.join(target, name)
                self.place(source, place)
            for name in folders:
                os.makedirs(os.path.join(target, name), exist_ok=True)
                self.place(os.devnull, os.path.join(target, name) + "/")

    @staticmethod
    def place(source, place):
        shutil.copyfile(source, place + "._S3rver_object") if source != os.devnull else open(
            place + "._S3rver_object", "w").close()
        digest = hashlib.md5()
        with open(place + "._S3rver_object", "rb") as f:
            while piece := f.read(content.MIB):
                digest.update(piece)
        content.write_bytes(place + "._S3rver_object.md5", digest.hexdigest().encode())
        content.write_bytes(place + "._S3rver_metadata.json", b'{"content-type": "application/octet-stream"}')
