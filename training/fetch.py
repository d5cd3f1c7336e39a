"""Download the source packages and unpack them (nothing is installed)."""
import os
import shutil
import subprocess

from corpora import PACKAGES


# Recordings, archives that hold recordings, and the licences.
WANTED = ["*.ogg", "*.oga", "*.wav", "*.flac", "*.mp3", "*.opus", "*.g722", "*.gsm", "*.sln16",
          "*.pk3", "*.wz", "*.zip", "*.1c", "*/copyright"]


def fetch(work, packages=PACKAGES):
    """Unpack every package under work/packages/NAME; packages already there are skipped."""
    debs = os.path.join(work, "debs")
    os.makedirs(debs, exist_ok=True)
    os.makedirs(os.path.join(work, "packages"), exist_ok=True)
    for number, name in enumerate(packages, 1):
        target = os.path.join(work, "packages", name)
        if os.path.isdir(target):
            continue
        print(f"fetch {number}/{len(packages)} {name}", flush=True)
        for old in os.listdir(debs):
            if old.startswith(name + "_"):
                os.remove(os.path.join(debs, old))
        download = ["apt-get", "-o", "APT::Sandbox::User=root", "download", "-qq", name]
        if subprocess.run(download, cwd=debs).returncode != 0:  # the package lists may be old
            subprocess.run(["apt-get", "-qq", "update"])
            subprocess.run(download, cwd=debs, check=True)
        deb = next(f for f in os.listdir(debs) if f.startswith(name + "_"))
        partial = target + ".partial"
        shutil.rmtree(partial, ignore_errors=True)
        os.makedirs(partial)
        archive = subprocess.Popen(["dpkg-deb", "--fsys-tarfile", os.path.join(debs, deb)],
                                   stdout=subprocess.PIPE)
        # tar complains about each pattern that a package does not match; that is no error.
        unpacked = subprocess.run(
            ["tar", "-x", "--ignore-case", "--wildcards", "-C", partial, *WANTED],
            stdin=archive.stdout, stderr=subprocess.PIPE, text=True, env=dict(os.environ, LC_ALL="C"))
        archive.stdout.close()
        errors = [line for line in unpacked.stderr.splitlines()
                  if "Not found in archive" not in line and "previous errors" not in line]
        if archive.wait() != 0 or errors:
            raise RuntimeError(f"{deb} cannot be unpacked: " + "; ".join(errors[:3]))
        os.rename(partial, target)
        os.remove(os.path.join(debs, deb))
