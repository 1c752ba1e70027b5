"""Pods of packaging/kubernetes/lumd-fleet.yaml, started by runc as the manifest has them.

Two things differ from a cluster: a pod is in this machine's network, and its resources are not
limited.
"""
import asyncio
import json
import pathlib
import shutil
import subprocess

import yaml

TREE = pathlib.Path(__file__).resolve().parents[2]
MANIFEST = TREE / "packaging/kubernetes/lumd-fleet.yaml"
PATIENCE = 30.0  # seconds until a pod has ended, as the manifest gives it
TMPFS = {"type": "tmpfs", "source": "tmpfs", "options": ["nosuid", "nodev", "mode=1777"]}


def manifest():
    """The objects of the manifest."""
    with open(MANIFEST, encoding="utf-8") as file:
        return list(yaml.safe_load_all(file))


def kind(wanted):
    return next(entry for entry in manifest() if entry["kind"] == wanted)


def sized(text):
    """Bytes of a quantity in Mi."""
    return int(text.removesuffix("Mi")) << 20


class Pod:
    """Access point `number` of the fleet. `bundle`: the image, unpacked; all pods share its root."""

    def __init__(self, bundle, number, environment):
        self.spec = kind("StatefulSet")["spec"]["template"]["spec"]
        self.name = f"{kind('StatefulSet')['metadata']['name']}-{number}"
        self.folder = bundle.parent / "pods" / self.name
        self._bundle, self._environment, self._process = bundle, environment, None

    async def start(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        (self.folder / "config.json").write_text(json.dumps(self._configuration()))
        with open(self.folder / "output", "wb") as output:
            self._process = await asyncio.create_subprocess_exec(
                "runc", "run", "--bundle", self.folder, self.name, stdin=subprocess.DEVNULL,
                stdout=output, stderr=subprocess.STDOUT)

    def _configuration(self):
        """The image's, with what the manifest says of a pod and its container."""
        with open(self._bundle / "config.json", encoding="utf-8") as file:
            result = json.load(file)
        container = self.spec["containers"][0]
        rights = {**self.spec["securityContext"], **container["securityContext"]}
        given = {entry["name"]: entry["value"] for entry in container["env"]} | self._environment
        process = result["process"]
        process["terminal"] = False
        process["env"] += [f"{name}={value}" for name, value in given.items()]
        process["user"] = {"uid": rights["runAsUser"], "gid": rights["runAsGroup"]}
        process["noNewPrivileges"] = not rights["allowPrivilegeEscalation"]
        assert rights["capabilities"] == {"drop": ["ALL"]}
        process["capabilities"] = {}
        result["hostname"] = self.name
        result["root"] = {"path": str(self._bundle / "rootfs"),
                          "readonly": rights["readOnlyRootFilesystem"]}
        sizes = {volume["name"]: volume["emptyDir"]["sizeLimit"] for volume in self.spec["volumes"]}
        places = {mount["mountPath"]: sized(sizes[mount["name"]])
                  for mount in container["volumeMounts"]}
        result["mounts"] = [mount for mount in result["mounts"]
                            if mount["destination"] not in places]
        result["mounts"] += [{**TMPFS, "destination": place,
                              "options": [*TMPFS["options"], f"size={size}"]}
                             for place, size in places.items()]
        linux = result["linux"]
        linux["namespaces"] = [space for space in linux["namespaces"] if space["type"] != "network"]
        return result

    def processes(self):
        """Folders below /proc of all that runs in it."""
        answer = subprocess.run(["runc", "ps", "--format", "json", self.name], check=True,
                                capture_output=True, text=True).stdout
        return [pathlib.Path("/proc") / str(number) for number in json.loads(answer)]

    async def ended(self):
        """(exit status, output), once it has ended."""
        return await asyncio.wait_for(self._process.wait(), PATIENCE), self.output

    @property
    def output(self):
        """What it has said so far."""
        return (self.folder / "output").read_text(encoding="utf-8", errors="replace")

    async def stop(self):
        """The same, as a cluster ends a pod."""
        if self._process.returncode is None:
            subprocess.run(["runc", "kill", self.name, "TERM"], check=False)
        try:
            return await self.ended()
        except asyncio.TimeoutError:
            subprocess.run(["runc", "delete", "--force", self.name], check=False)
            raise
