#!/usr/bin/env python3
"""Generate the layer's dispatch tables and extension catalog from vk.xml.

Writes four files (checked in under layer/generated/):

  zovk_dispatch_tables.h/.cpp
      VkInstanceFunctionTable and VkDeviceFunctionTable, one typed slot per
      command, and a slot list (name, core version, offset) per table.
  zovk_extension_catalog_data.h/.cpp
      One row per command of the catalog extensions: level, promoted core
      name, providing extensions.

Rules applied to the registry:

  Level. A command is instance-level when its first parameter is VkInstance
  or VkPhysicalDevice, or when it has no dispatchable first parameter
  (vkCreateInstance, vkEnumerateInstance*). It is device-level when the first
  parameter is VkDevice, VkQueue or VkCommandBuffer. Aliases take the level of
  the command they alias.

  Core commands. Those required by the VK_VERSION_1_0 .. VK_VERSION_1_3
  features, in the order the features list them. The layer fills core slots
  for these four versions only, so newer features are left out: a newer
  registry then yields the same core part of the tables.

  Table order. Instance: 1.0, 1.1, 1.2, 1.3 instance-level commands, then the
  instance-level catalog commands in catalog order. Device: vkGetDeviceProcAddr,
  vkDestroyDevice, vkGetDeviceQueue, the rest of 1.0, then 1.1, 1.2, 1.3
  device-level commands, then the device-level catalog commands. Extension
  commands keep their own suffixed names even when they alias a core command.

  Catalog membership. Every command named in a <require> block of one of the
  CATALOG_EXTENSIONS, once, in order of first appearance when the registry's
  <extensions> are walked in document order, except commands of another
  vendor: a command whose vendor suffix (NV in vkCmdSetViewportSwizzleNV) is
  not the vendor of any catalog extension that lists it is left out. Those are
  interactions with other vendors' extensions (vkCmdWriteBufferMarker2AMD in
  VK_KHR_synchronization2, the ten NV setters in
  VK_EXT_extended_dynamic_state3) that exist only when that other extension is
  enabled, which the catalog does not track; newer registries mark them as
  conditional on it. With vk.xml 1.3.239 this gives 256 commands and tables of
  67 and 404 slots; without the exclusion it would be 268 and 416.

  Core name. The command element's alias when that alias is a core command as
  defined above; "" otherwise.

  Providing extensions. Each require block that lists the command contributes
  its own extension plus every extension named by its condition attribute
  (`extension="..."` in older registries, `depends="..."` in newer ones; any
  VK_VERSION_x token in it is not an extension and is dropped). A block whose
  condition names only core versions (`feature="VK_VERSION_1_1"`, or a
  `depends` made of VK_VERSION_x tokens) is ignored when the command also
  appears in a block that is not version-conditional. The result is sorted by
  name. A condition that offers alternatives ("A,B" = A or B) still
  contributes all of its names: the layer treats every providing extension as
  needed, and no command the layer relies on has such a condition.

  Vulkan SC. Features, extensions, require blocks, commands and parameters
  whose `api`/`supported` attribute excludes "vulkan" are ignored.
"""

from __future__ import annotations

import argparse
import collections
import difflib
import os
import re
import sys
import tempfile
import xml.etree.ElementTree as ET

GENERATOR = "tools/gen_vk_tables.py"
DEFAULT_REGISTRY = "/usr/share/vulkan/registry/vk.xml"
REPO_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_OUT = os.path.join(REPO_ROOT, "layer", "generated")

DISPATCH_HEADER = "zovk_dispatch_tables.h"
DISPATCH_SOURCE = "zovk_dispatch_tables.cpp"
CATALOG_HEADER = "zovk_extension_catalog_data.h"
CATALOG_SOURCE = "zovk_extension_catalog_data.cpp"

# The extensions whose commands the layer knows about.
CATALOG_EXTENSIONS = (
    "VK_KHR_surface",
    "VK_KHR_swapchain",
    "VK_KHR_android_surface",
    "VK_KHR_get_physical_device_properties2",
    "VK_KHR_device_group",
    "VK_KHR_device_group_creation",
    "VK_KHR_maintenance1",
    "VK_KHR_maintenance3",
    "VK_KHR_maintenance4",
    "VK_KHR_external_memory_capabilities",
    "VK_KHR_external_memory_fd",
    "VK_KHR_external_semaphore_capabilities",
    "VK_KHR_external_semaphore_fd",
    "VK_KHR_external_fence_capabilities",
    "VK_KHR_external_fence_fd",
    "VK_KHR_push_descriptor",
    "VK_KHR_descriptor_update_template",
    "VK_KHR_create_renderpass2",
    "VK_KHR_shared_presentable_image",
    "VK_KHR_performance_query",
    "VK_KHR_get_surface_capabilities2",
    "VK_KHR_get_display_properties2",
    "VK_KHR_get_memory_requirements2",
    "VK_KHR_sampler_ycbcr_conversion",
    "VK_KHR_bind_memory2",
    "VK_KHR_draw_indirect_count",
    "VK_KHR_timeline_semaphore",
    "VK_KHR_fragment_shading_rate",
    "VK_KHR_present_wait",
    "VK_KHR_buffer_device_address",
    "VK_KHR_deferred_host_operations",
    "VK_KHR_pipeline_executable_properties",
    "VK_KHR_synchronization2",
    "VK_KHR_copy_commands2",
    "VK_KHR_dynamic_rendering",
    "VK_KHR_acceleration_structure",
    "VK_KHR_ray_tracing_pipeline",
    "VK_KHR_ray_tracing_maintenance1",
    "VK_EXT_debug_report",
    "VK_EXT_debug_marker",
    "VK_EXT_debug_utils",
    "VK_EXT_transform_feedback",
    "VK_EXT_conditional_rendering",
    "VK_EXT_discard_rectangles",
    "VK_EXT_hdr_metadata",
    "VK_EXT_sample_locations",
    "VK_EXT_validation_cache",
    "VK_EXT_external_memory_host",
    "VK_EXT_calibrated_timestamps",
    "VK_EXT_buffer_device_address",
    "VK_EXT_tooling_info",
    "VK_EXT_line_rasterization",
    "VK_EXT_host_query_reset",
    "VK_EXT_extended_dynamic_state",
    "VK_EXT_extended_dynamic_state2",
    "VK_EXT_extended_dynamic_state3",
    "VK_EXT_private_data",
    "VK_EXT_vertex_input_dynamic_state",
    "VK_EXT_color_write_enable",
    "VK_EXT_multi_draw",
    "VK_EXT_image_compression_control",
    "VK_EXT_image_drm_format_modifier",
    "VK_EXT_pageable_device_local_memory",
    "VK_EXT_pipeline_properties",
    "VK_EXT_shader_module_identifier",
    "VK_EXT_swapchain_maintenance1",
    "VK_EXT_descriptor_buffer",
    "VK_EXT_opacity_micromap",
    "VK_EXT_mesh_shader",
    "VK_EXT_device_fault",
    "VK_EXT_acquire_drm_display",
    "VK_ANDROID_external_memory_android_hardware_buffer",
    "VK_GOOGLE_display_timing",
    "VK_QCOM_tile_properties",
)

# Core versions whose commands get core slots; the layer fills no others.
CORE_VERSIONS = ((1, 0), (1, 1), (1, 2), (1, 3))

INSTANCE_HANDLES = frozenset(("VkInstance", "VkPhysicalDevice"))
DEVICE_HANDLES = frozenset(("VkDevice", "VkQueue", "VkCommandBuffer"))

# The device table starts with these so that they sit at fixed offsets.
DEVICE_LEADING = ("vkGetDeviceProcAddr", "vkDestroyDevice", "vkGetDeviceQueue")

# Platforms whose types the generated header can see (it includes only
# vulkan_core.h and vulkan_android.h).
SUPPORTED_PLATFORMS = frozenset(("android",))

VERSION_NAME = re.compile(r"^VK_VERSION_(\d+)_(\d+)$")
CONDITION_TOKEN = re.compile(r"VK_[A-Za-z0-9_]+")


class RegistryError(Exception):
    pass


CatalogEntry = collections.namedtuple(
    "CatalogEntry", "name instance_level core_name extensions")
# core_version: (major, minor) for core commands, None for extension commands.
Slot = collections.namedtuple("Slot", "name core_version")


def _for_vulkan(element, attribute="api"):
    value = element.get(attribute)
    return value is None or "vulkan" in value.split(",")


class Registry:
    """The parts of vk.xml that the tables need."""

    def __init__(self, root):
        self.header_version = self._header_version(root)
        self.commands = {}  # name -> {"alias": str|None, "first_type": str|None}
        self._read_commands(root)
        self.core = collections.OrderedDict()  # name -> (major, minor)
        self._read_features(root)
        self.extensions = [e for e in root.iter("extension")
                           if e.get("name") and _for_vulkan(e, "supported")]
        self.vendor_tags = {t.get("name") for t in root.iter("tag")
                            if t.get("name")}
        self.vendor_tags |= {extension_vendor(e.get("name"))
                             for e in root.iter("extension") if e.get("name")}

    @staticmethod
    def _header_version(root):
        for type_el in root.iter("type"):
            name = type_el.find("name")
            if name is not None and name.text == "VK_HEADER_VERSION":
                match = re.search(r"\d+", name.tail or "")
                if match:
                    return int(match.group(0))
        raise RegistryError("VK_HEADER_VERSION not found")

    def _read_commands(self, root):
        commands_el = root.find("commands")
        if commands_el is None:
            raise RegistryError("no <commands> element")
        for cmd in commands_el.findall("command"):
            if not _for_vulkan(cmd):
                continue
            if cmd.get("alias"):
                self.commands[cmd.get("name")] = {
                    "alias": cmd.get("alias"), "first_type": None}
                continue
            name = cmd.find("proto/name").text
            params = [p for p in cmd.findall("param") if _for_vulkan(p)]
            first_type = None
            if params and params[0].find("type") is not None:
                first_type = params[0].find("type").text
            self.commands[name] = {"alias": None, "first_type": first_type}

    def _read_features(self, root):
        for feature in root.findall("feature"):
            if not _for_vulkan(feature):
                continue
            match = VERSION_NAME.match(feature.get("name", ""))
            if not match:
                continue
            version = (int(match.group(1)), int(match.group(2)))
            if version not in CORE_VERSIONS:
                continue
            for require in feature.findall("require"):
                if not _for_vulkan(require):
                    continue
                for cmd in require.findall("command"):
                    self.core.setdefault(cmd.get("name"), version)

    def command(self, name):
        if name not in self.commands:
            raise RegistryError("command %s is not defined" % name)
        return self.commands[name]

    def is_instance_level(self, name):
        """True for instance-level commands, False for device-level ones."""
        seen = set()
        info = self.command(name)
        while info["alias"]:
            if name in seen:
                raise RegistryError("alias loop at %s" % name)
            seen.add(name)
            name = info["alias"]
            info = self.command(name)
        return info["first_type"] not in DEVICE_HANDLES

    def command_vendor(self, name):
        """The vendor tag that ends a command's name ("" for none)."""
        return max((t for t in self.vendor_tags if name.endswith(t)),
                   key=len, default="")

    def core_alias(self, name):
        alias = self.command(name)["alias"]
        return alias if alias in self.core else ""


def extension_vendor(extension_name):
    """VK_KHR_surface -> KHR."""
    parts = extension_name.split("_")
    return parts[1] if len(parts) > 2 else ""


def load_registry(path):
    try:
        return Registry(ET.parse(path).getroot())
    except (OSError, ET.ParseError) as err:
        raise RegistryError("cannot read %s: %s" % (path, err))


def _condition(require):
    """(extension names, version-only?) of a require block's condition."""
    tokens = []
    for attribute in ("extension", "depends", "feature"):
        tokens += CONDITION_TOKEN.findall(require.get(attribute) or "")
    extensions = {t for t in tokens if not VERSION_NAME.match(t)}
    return extensions, bool(tokens) and not extensions


def build_catalog(registry, extension_names=CATALOG_EXTENSIONS):
    wanted = set(extension_names)
    found = {e.get("name") for e in registry.extensions}
    missing = sorted(wanted - found)
    if missing:
        raise RegistryError("extensions not in the registry (or not for "
                            "Vulkan): %s" % ", ".join(missing))

    # name -> list of (provider set, version-only?) per listing block
    blocks = collections.OrderedDict()
    listers = {}  # name -> vendors of the catalog extensions that list it
    for ext in registry.extensions:
        ext_name = ext.get("name")
        if ext_name not in wanted:
            continue
        if ext.get("provisional") == "true" or (
                ext.get("platform") and
                ext.get("platform") not in SUPPORTED_PLATFORMS):
            raise RegistryError("%s needs a platform header that the tables "
                                "do not include" % ext_name)
        for require in ext.findall("require"):
            if not _for_vulkan(require):
                continue
            cond_exts, version_only = _condition(require)
            for cmd in require.findall("command"):
                name = cmd.get("name")
                registry.command(name)
                blocks.setdefault(name, []).append(
                    ({ext_name} | cond_exts, version_only))
                listers.setdefault(name, set()).add(extension_vendor(ext_name))

    catalog = []
    for name, listed in blocks.items():
        if name in registry.core:
            raise RegistryError("%s is a core command; it cannot also have an "
                                "extension slot" % name)
        vendor = registry.command_vendor(name)
        if vendor and vendor not in listers[name]:
            continue
        unconditional = [b for b in listed if not b[1]]
        providers = set()
        for exts, _ in (unconditional or listed):
            providers |= exts
        catalog.append(CatalogEntry(
            name=name,
            instance_level=registry.is_instance_level(name),
            core_name=registry.core_alias(name),
            extensions=tuple(sorted(providers))))
    return catalog


def build_tables(registry, catalog):
    """(instance slots, device slots), each a list of Slot in table order."""
    instance, device = [], []
    for version in CORE_VERSIONS:
        for name, v in registry.core.items():
            if v != version:
                continue
            slot = Slot(name, version)
            (instance if registry.is_instance_level(name) else device).append(slot)
    for name in reversed(DEVICE_LEADING):
        index = next((i for i, s in enumerate(device) if s.name == name), None)
        if index is None:
            raise RegistryError("%s is not a device-level core command" % name)
        device.insert(0, device.pop(index))
    for entry in catalog:
        (instance if entry.instance_level else device).append(
            Slot(entry.name, None))
    return instance, device


def _banner(header_version):
    return ("// Generated by %s from vk.xml (header version %d). Do not edit.\n"
            % (GENERATOR, header_version))


def _version_macro(version):
    return "VK_API_VERSION_%d_%d" % version if version else "0"


def _section_title(version):
    return "Vulkan %d.%d" % version if version else "Extensions"


def _table_struct(struct_name, comment, slots):
    lines = ["// %s" % comment, "struct %s {" % struct_name]
    section = None
    for index, slot in enumerate(slots):
        if index == 0 or slot.core_version != section:
            if index:
                lines.append("")
            lines.append("    // %s" % _section_title(slot.core_version))
            section = slot.core_version
        lines.append("    PFN_%s %s = nullptr;" % (slot.name, slot.name))
    lines.append("};")
    return "\n".join(lines) + "\n"


def render_dispatch_header(header_version, instance, device):
    out = [_banner(header_version),
           "#pragma once\n\n"
           "#include <cstddef>\n"
           "#include <cstdint>\n\n"
           "#include <vulkan/vulkan_core.h>\n"
           "// Android entry points have slots on every build, so their PFN types\n"
           "// are needed on the host too; this header only forward-declares the\n"
           "// platform structs.\n"
           "#include <vulkan/vulkan_android.h>\n\n"
           "namespace vulkan::zovk {\n\n",
           _table_struct("VkInstanceFunctionTable",
                         "Next layer's instance-level functions for one instance.",
                         instance),
           "\n",
           _table_struct("VkDeviceFunctionTable",
                         "Next layer's device-level functions for one device.",
                         device),
           "\n"
           "// One table slot: the command's name, the core version that provides it\n"
           "// (0 for extension commands) and the slot's byte offset in its table.\n"
           "struct VkFunctionSlotInfo {\n"
           "    const char* name;\n"
           "    uint32_t coreVersion;\n"
           "    size_t offset;\n"
           "};\n\n"
           "// Slots in table order.\n"
           "extern const VkFunctionSlotInfo kInstanceFunctionSlots[];\n"
           "extern const size_t kInstanceFunctionSlotCount;\n"
           "extern const VkFunctionSlotInfo kDeviceFunctionSlots[];\n"
           "extern const size_t kDeviceFunctionSlotCount;\n\n"
           "// The tables are walked as arrays of pointers: no padding, no other members.\n"
           "static_assert(sizeof(VkInstanceFunctionTable) == %d * sizeof(PFN_vkVoidFunction),\n"
           "              \"instance table layout\");\n"
           "static_assert(sizeof(VkDeviceFunctionTable) == %d * sizeof(PFN_vkVoidFunction),\n"
           "              \"device table layout\");\n\n"
           "}  // namespace vulkan::zovk\n" % (len(instance), len(device))]
    return "".join(out)


def _slot_array(array_name, count_name, table_name, slots):
    lines = ["const VkFunctionSlotInfo %s[] = {" % array_name]
    for slot in slots:
        lines.append("    {\"%s\", %s, offsetof(%s, %s)}," % (
            slot.name, _version_macro(slot.core_version), table_name, slot.name))
    lines.append("};")
    lines.append("const size_t %s = sizeof(%s) / sizeof(%s[0]);" % (
        count_name, array_name, array_name))
    lines.append("static_assert(sizeof(%s) / sizeof(%s[0]) == %d, \"%s\");" % (
        array_name, array_name, len(slots), "one entry per slot"))
    return "\n".join(lines) + "\n"


def render_dispatch_source(header_version, instance, device):
    return "".join([
        _banner(header_version),
        "#include \"%s\"\n\n" % DISPATCH_HEADER,
        "namespace vulkan::zovk {\n\n",
        _slot_array("kInstanceFunctionSlots", "kInstanceFunctionSlotCount",
                    "VkInstanceFunctionTable", instance),
        "\n",
        _slot_array("kDeviceFunctionSlots", "kDeviceFunctionSlotCount",
                    "VkDeviceFunctionTable", device),
        "\n}  // namespace vulkan::zovk\n",
    ])


def provider_slots(catalog):
    """Array length of VkExtensionCatalogEntry::extensions (with terminator)."""
    return max([len(e.extensions) for e in catalog] + [0]) + 1


def render_catalog_header(header_version, catalog):
    return "".join([
        _banner(header_version),
        "#pragma once\n\n"
        "#include <cstddef>\n"
        "#include <cstdint>\n\n"
        "namespace vulkan::zovk {\n\n"
        "// Room for the most providers of any entry plus the terminator.\n"
        "inline constexpr size_t kExtensionCatalogProviderSlots = %d;\n\n"
        "struct VkExtensionCatalogEntry {\n"
        "    const char* name;\n"
        "    uint32_t instanceLevel;  // 1: instance-level command, 0: device-level\n"
        "    const char* coreName;    // core command it was promoted to, \"\" if none\n"
        "    // Extensions that provide it, sorted, terminated by nullptr.\n"
        "    const char* extensions[kExtensionCatalogProviderSlots];\n"
        "};\n\n"
        "extern const VkExtensionCatalogEntry kExtensionCatalogEntries[];\n"
        "extern const size_t kExtensionCatalogEntryCount;\n\n"
        "}  // namespace vulkan::zovk\n" % provider_slots(catalog),
    ])


def render_catalog_source(header_version, catalog):
    lines = [_banner(header_version).rstrip("\n"),
             "#include \"%s\"" % CATALOG_HEADER,
             "",
             "namespace vulkan::zovk {",
             "",
             "const VkExtensionCatalogEntry kExtensionCatalogEntries[] = {"]
    for entry in catalog:
        providers = "".join("\"%s\", " % e for e in entry.extensions)
        lines.append("    {\"%s\", %d, \"%s\", {%snullptr}}," % (
            entry.name, 1 if entry.instance_level else 0, entry.core_name,
            providers))
    lines += ["};",
              "const size_t kExtensionCatalogEntryCount =",
              "    sizeof(kExtensionCatalogEntries) / sizeof(kExtensionCatalogEntries[0]);",
              "static_assert(sizeof(kExtensionCatalogEntries) / sizeof(kExtensionCatalogEntries[0]) == %d,"
              % len(catalog),
              "              \"one entry per catalog command\");",
              "",
              "}  // namespace vulkan::zovk",
              ""]
    return "\n".join(lines)


def generate(registry_path, extension_names=CATALOG_EXTENSIONS):
    """Returns ({file name: text}, summary line)."""
    registry = load_registry(registry_path)
    catalog = build_catalog(registry, extension_names)
    instance, device = build_tables(registry, catalog)
    version = registry.header_version
    files = {
        DISPATCH_HEADER: render_dispatch_header(version, instance, device),
        DISPATCH_SOURCE: render_dispatch_source(version, instance, device),
        CATALOG_HEADER: render_catalog_header(version, catalog),
        CATALOG_SOURCE: render_catalog_source(version, catalog),
    }
    summary = ("catalog entries: %d, extensions: %d, instance slots: %d, "
               "device slots: %d" % (len(catalog), len(set(extension_names)),
                                     len(instance), len(device)))
    return files, summary


def write_files(files, out_dir):
    os.makedirs(out_dir, exist_ok=True)
    for name, text in sorted(files.items()):
        with open(os.path.join(out_dir, name), "w", encoding="utf-8",
                  newline="\n") as f:
            f.write(text)


def diff_against(files, out_dir):
    """Unified diff of the checked-in files against freshly generated ones."""
    chunks = []
    with tempfile.TemporaryDirectory() as tmp:
        write_files(files, tmp)
        for name in sorted(files):
            fresh = os.path.join(tmp, name)
            current = os.path.join(out_dir, name)
            with open(fresh, encoding="utf-8") as f:
                new_lines = f.readlines()
            old_lines = []
            if os.path.exists(current):
                with open(current, encoding="utf-8") as f:
                    old_lines = f.readlines()
            chunks += difflib.unified_diff(old_lines, new_lines,
                                           fromfile=current,
                                           tofile="generated/" + name)
    return "".join(chunks)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--registry", default=DEFAULT_REGISTRY,
                        help="path of vk.xml (default: %(default)s)")
    parser.add_argument("--out", default=DEFAULT_OUT,
                        help="output folder (default: layer/generated)")
    parser.add_argument("--check", action="store_true",
                        help="write nothing; exit 1 with a diff if the files "
                             "in --out are not what would be generated")
    args = parser.parse_args(argv)

    try:
        files, summary = generate(args.registry)
    except RegistryError as err:
        print("gen_vk_tables: %s" % err, file=sys.stderr)
        return 2
    print(summary)
    if args.check:
        diff = diff_against(files, args.out)
        if diff:
            sys.stdout.write(diff)
            print("gen_vk_tables: %s is out of date; rerun %s"
                  % (args.out, GENERATOR), file=sys.stderr)
            return 1
        return 0
    write_files(files, args.out)
    return 0


if __name__ == "__main__":
    sys.exit(main())
