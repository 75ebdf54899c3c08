"""Programs and data from npm that tests need, in the versions of a lock file of the project."""

import fcntl
import shutil
import subprocess
from pathlib import Path

LIMIT_SECS = 240


def install(manifest, place):
    """Installs what the directory `manifest` names below `place`, unless it is there already; returns
    the directory of the packages. Tests that run side by side wait for one another."""
    place = Path(place)
    place.mkdir(parents=True, exist_ok=True)
    installed = place / "node_modules" / ".package-lock.json"
    with open(place / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        wanted = manifest / "package-lock.json"
        if not installed.exists() or installed.stat().st_mtime < wanted.stat().st_mtime:
            for name in ("package.json", "package-lock.json"):
                shutil.copy(manifest / name, place)
            subprocess.run(["npm", "ci", "--ignore-scripts", "--omit=optional", "--no-audit",
                            "--no-fund"], cwd=place, check=True, timeout=LIMIT_SECS)
    return place / "node_modules"
