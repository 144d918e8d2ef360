"""Files from the depot, which is a git repository.

PGM_PYTHON_DEPOT names the repository, bare or not. Unset, it is "depot.git" next to the installation's "common" folder.

A depot file is named "//depot/PATH", with a revision after it when it is not the newest that is wanted:

    //depot/PATH#3      the third revision of the file (every commit that changes it makes one)
    //depot/PATH#head   the newest revision, as without one
    //depot/PATH@NAME   the file as it was at a tag, a branch or a commit
"""

import os
import re

from pgm_python_reasons import Refusal
from pgm_python_system import read_file, run_command, write_file

SOURCE = re.compile(r"//depot/(?P<path>[^#@]+)(?:#(?P<number>head|[0-9]{1,9})|@(?P<name>[^#@]+))?")
NAME = re.compile(r"[A-Za-z0-9_][A-Za-z0-9_./-]*")

# Variables by which git would be led to another repository than the one that is named here.
ASIDE = ("GIT_DIR", "GIT_WORK_TREE", "GIT_INDEX_FILE", "GIT_OBJECT_DIRECTORY", "GIT_ALTERNATE_OBJECT_DIRECTORIES",
         "GIT_COMMON_DIR", "GIT_NAMESPACE")


def find_depot():
    here = os.path.dirname(os.path.abspath(__file__))
    default = os.path.normpath(os.path.join(here, "..", "..", "..", "..", "depot.git"))
    depot = os.environ.get("PGM_PYTHON_DEPOT") or default
    for folder in (os.path.join(depot, ".git"), depot):
        if os.path.isfile(os.path.join(folder, "HEAD")):
            return folder
    raise Refusal("there is no depot at %s" % depot,
                  "set PGM_PYTHON_DEPOT to the folder of the git repository that is the depot")


class Depot:
    def __init__(self):
        self.folder = find_depot()

    def git(self, *arguments):
        """(exit status, output) of a git command on the depot."""
        command = ["git", "--git-dir=" + self.folder, "--literal-pathspecs"] + list(arguments)
        status, output, error = run_command(command, environment={"GIT_TERMINAL_PROMPT": "0"}, without=ASIDE)
        if status not in (0, 1) and error:
            raise Refusal("the depot %s cannot be asked" % self.folder, "git says: %s" % error)
        return status, output

    def find_commit(self, name):
        status, output = self.git("rev-parse", "--verify", "--quiet", name + "^{commit}")
        return output.decode("ascii").strip() if status == 0 else ""

    def list_revisions(self, commit, path):
        """The commits that changed a file, the oldest first."""
        _, output = self.git("rev-list", "--reverse", commit, "--", path)
        return output.decode("ascii").split()

    def read(self, commit, path):
        """(mode, bytes) of a file, or None when there is no such file at the commit."""
        _, output = self.git("ls-tree", "-z", commit, "--", path)
        entries = [entry for entry in output.split(b"\0") if entry]
        if len(entries) != 1:
            return None
        mode, kind, blob = entries[0].split(b"\t")[0].decode("ascii").split()
        if kind != "blob" or mode not in ("100644", "100755"):
            return None
        return int(mode[3:], 8), self.git("cat-file", "blob", blob)[1]


def sync_file(folder, source):
    match = SOURCE.fullmatch(source)
    parts = match.group("path").split("/") if match else []
    if not match or any(part in ("", ".", "..", "...") or "*" in part for part in parts):
        raise Refusal("%s does not name a depot file" % source,
                      "write //depot/PATH, //depot/PATH#NUMBER or //depot/PATH@TAG, without wildcards")
    path, number, name = match.group("path", "number", "name")
    if not os.path.isdir(folder):
        raise Refusal("the folder %s to sync into does not exist" % folder)

    depot = Depot()
    if name and not NAME.fullmatch(name):
        raise Refusal("%s cannot be the name of a tag, a branch or a commit" % name)
    commit = depot.find_commit(name or "HEAD")
    if not commit:
        raise Refusal("the depot knows no tag, branch or commit %s" % name if name else "the depot holds nothing yet")
    revisions = depot.list_revisions(commit, path)
    if not revisions:
        raise Refusal("the depot has no file //depot/%s%s" % (path, " at " + name if name else ""))
    if number and number != "head":
        if not 1 <= int(number) <= len(revisions):
            raise Refusal("//depot/%s has no revision #%s" % (path, number),
                          "its revisions are #1 to #%d" % len(revisions))
        revisions = revisions[:int(number)]
        commit = revisions[-1]
    found = depot.read(commit, path)
    if found is None:
        raise Refusal("//depot/%s is no file at revision #%d" % (path, len(revisions)),
                      "it was deleted there, or it is a folder or a link")

    mode, data = found
    target = os.path.join(folder, parts[-1])
    if not os.path.lexists(target):
        done = "added as"
    elif os.path.isfile(target) and read_file(target, "file") == data:
        done = "is up to date in"
    else:
        done = "updated in"
    if not done.startswith("is"):
        write_file(target, data, 0o777 if mode & 0o100 else 0o666)
    return "//depot/%s#%d - %s %s (commit %s, %d bytes)" % (
        path, len(revisions), done, target, revisions[-1][:12], len(data))
