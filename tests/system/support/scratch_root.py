"""The files and directories that one daemon works with."""

import json
import os

from support import certificates
from support.ports import reserve_port

PAIRING_KEY = "s3cret-Pairing-Key"


class ScratchRoot:
    """A configuration with everything in place; `settings` may be changed before the start.

    Settings that are None are left out of the configuration file.
    """

    def __init__(self, directory):
        self.directory = directory
        self.config = directory / "tavlo.json"
        self.router_info = directory / "router_info"
        self.agent_directory = directory / "agent"
        self.certificate = self.agent_directory / "mirel.crt"
        self.key = self.agent_directory / "mirel.key"
        self.device_list = directory / "devicelist.json"
        self.internal_hooks = directory / "hooks"
        self.external_hooks = directory / "external_hooks"
        self.agent_data = directory / "agent_data"
        self.http_port = reserve_port()
        self.https_port = reserve_port()
        self.destination_port = reserve_port()
        self.settings = {
            "agentDstPort": self.destination_port,
            "agentHttpPort": self.http_port,
            "agentHttpsPort": self.https_port,
            # It has no global address, so that nothing but loopback is bound.
            "lanInterface": "lo",
            "agentDirectory": str(self.agent_directory),
            "internalHooksDirectory": str(self.internal_hooks),
            "externalHooksDirectory": str(self.external_hooks),
            "routerInfoPath": str(self.router_info),
            "deviceDiscoveryPath": str(self.device_list),
            "rootPrefix": str(directory),
        }
        for path in (self.agent_directory, self.internal_hooks / "agent",
                     self.external_hooks / "agent", directory / "tmp"):
            path.mkdir(parents=True)
        self.write_pairing_key(PAIRING_KEY)
        self.write_device_list([{"ip": ["127.0.0.1"], "mac": "02:00:5e:10:00:01"}])
        certificates.make_pair(self.certificate, self.key)

    def write_config(self):
        settings = {key: value for key, value in self.settings.items() if value is not None}
        self.config.write_text(json.dumps(settings, indent=2) + "\n")

    def write_router_info(self, text, mtime=None):
        """`mtime` in whole seconds, as the daemon sees it; the present time when not given."""
        data = text if isinstance(text, bytes) else text.encode()
        self.router_info.write_bytes(data)
        if mtime is not None:
            os.utime(self.router_info, (mtime, mtime))

    def write_pairing_key(self, key, mtime=None):
        self.write_router_info(f"model: scratch\npairing_key: {key}\nserial: 1\n", mtime)

    def write_device_list(self, devices):
        self.device_list.write_text(json.dumps({"devices": devices}))

    def write_hook(self, directory, name, script, event="agent", mode=0o755):
        path = directory / event / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(script)
        path.chmod(mode)
        return path
