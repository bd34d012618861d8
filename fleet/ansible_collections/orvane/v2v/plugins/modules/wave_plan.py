#!/usr/bin/python3
"""Settles the name, arguments and state of each VM of a wave on one host."""

from __future__ import annotations

DOCUMENTATION = r"""
---
module: wave_plan
short_description: Plan the orvane-v2v runs of one host's VMs
description:
  - Settles the libvirt name of each VM (from the inventory, the display name in its
    C(.vmx), or, when allowed, its folder name) and tells which VMs are already defined.
  - Reads only; never changes the host.
options:
  vms:
    description: The host's VMs, each with C(path) and optional C(name), C(output_dir), C(virtio).
    type: list
    elements: dict
    required: true
  derive_names:
    description: Name a VM after its folder when its display name is not a usable VM name.
    type: bool
    default: false
  command:
    description: The orvane-v2v program.
    type: str
    default: orvane-v2v
author: orvane-v2v developers
"""

EXAMPLES = r"""
- name: Plan the wave
  orvane.v2v.wave_plan:
    vms: "{{ orvane_v2v_vms }}"
    derive_names: true
"""

RETURN = r"""
vms:
  description: One entry per VM, in inventory order.
  returned: always
  type: list
  elements: dict
  contains:
    path: {description: The source folder., type: str}
    name: {description: The VM name to use, empty when none is usable., type: str}
    name_from: {description: inventory, vmx, folder or none., type: str}
    defined: {description: A domain of that name is already defined., type: bool}
    argv: {description: The program's arguments for a real run, without --yes., type: list}
"""

import glob
import os
import re
from typing import Any

from ansible.module_utils.basic import AnsibleModule

# The characters the program accepts in a VM name.
VALID_NAME = re.compile(r"^[A-Za-z0-9_.+-]+$")
DISPLAY_NAME = re.compile(r'^\s*displayname\s*=\s*"(.*)"\s*$', re.IGNORECASE)


def display_name(folder: str) -> str:
    vmx = glob.glob(os.path.join(glob.escape(folder), "*.vmx"))
    if len(vmx) != 1:
        return ""  # the program itself says what is wrong with the folder
    with open(vmx[0], encoding="utf-8", errors="replace") as f:
        for line in f:
            m = DISPLAY_NAME.match(line)
            if m:
                return m.group(1)
    return ""


def folder_name(folder: str) -> str:
    base = os.path.basename(os.path.normpath(folder))
    return re.sub(r"[^A-Za-z0-9_.+-]+", "-", base).strip("-")


def plan_vm(module: AnsibleModule, vm: dict[str, Any]) -> dict[str, Any]:
    path = str(vm["path"])
    name, name_from = str(vm.get("name") or ""), "inventory"
    if not name:
        name, name_from = display_name(path), "vmx"
    if not VALID_NAME.match(name) and not vm.get("name"):
        derived = folder_name(path)
        if module.params["derive_names"] and VALID_NAME.match(derived):
            name, name_from = derived, "folder"
        else:
            # Leave it to the program, whose refusal says why and how to fix it.
            name, name_from = "", "none"
    argv = [module.params["command"], "-p", path]
    if name:
        argv += ["-n", name]
    if vm.get("output_dir"):
        argv += ["-o", str(vm["output_dir"])]
    if vm.get("virtio"):
        argv.append("--virtio")
    defined = False
    if name:
        rc, _, _ = module.run_command(["virsh", "dominfo", name])
        defined = rc == 0
    return {"path": path, "name": name, "name_from": name_from, "defined": defined,
            "argv": argv}


def main() -> None:
    module = AnsibleModule(
        argument_spec={
            "vms": {"type": "list", "elements": "dict", "required": True},
            "derive_names": {"type": "bool", "default": False},
            "command": {"type": "str", "default": "orvane-v2v"},
        },
        supports_check_mode=True,
    )
    missing = [i for i, vm in enumerate(module.params["vms"]) if not vm.get("path")]
    if missing:
        module.fail_json(msg=f"VM entries without a path: {missing}")
    module.exit_json(changed=False,
                     vms=[plan_vm(module, vm) for vm in module.params["vms"]])


if __name__ == "__main__":
    main()
