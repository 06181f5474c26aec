#!/usr/bin/env python3
"""Tests of tools/gen_vk_tables.py on a small hand-written registry, and of the
checked-in output against the system's vk.xml when it is installed."""

import os
import shutil
import sys
import tempfile
import unittest

REPO_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO_ROOT, "tools"))

import gen_vk_tables as gen  # noqa: E402

# Each command with the type of its first parameter, which decides its level.
COMMANDS = """vkCreateInstance:VkInstanceCreateInfo vkEnumerateInstanceVersion:uint32_t
    vkGetPhysicalDeviceFoo:VkPhysicalDevice vkGetPhysicalDeviceFoo2:VkPhysicalDevice vkGetDeviceProcAddr:VkDevice
    vkDestroyDevice:VkDevice vkGetDeviceQueue:VkDevice vkQueueSubmit:VkQueue vkCmdDraw:VkCommandBuffer
    vkCmdCopy2:VkCommandBuffer vkCmdNewThing:VkCommandBuffer vkDestroySurfaceKHR:VkInstance vkQueuePresentKHR:VkQueue
    vkGetPhysicalDevicePresentRectanglesKHR:VkPhysicalDevice vkGetDeviceGroupOnlyVersionedKHR:VkDevice
    vkCmdBothKHR:VkCommandBuffer vkCmdSetDynEXT:VkCommandBuffer vkCmdSetSwizzleNV:VkCommandBuffer
    vkCmdSomethingNV:VkCommandBuffer"""


def _require(names, attributes=""):
    return "<require%s>%s</require>" % (attributes, "".join('<command name="%s"/>' % n for n in names.split()))


def _extension(name, number, *requires, supported="vulkan"):
    return '<extension name="%s" number="%d" supported="%s">%s</extension>' % (name, number, supported,
                                                                              "".join(requires))


# Mirrors the shapes of the real registry: extension commands listed by
# several extensions, blocks conditional on a version or on other extensions,
# promotion aliases, another vendor's interaction command, Vulkan SC parts.
FRAGMENT = """<registry><tags><tag name="KHR"/><tag name="EXT"/><tag name="NV"/></tags>
  <types><type category="define">#define <name>VK_HEADER_VERSION</name> 42</type></types>
  <commands>%(commands)s
    <command name="vkGetPhysicalDeviceFoo2KHR" alias="vkGetPhysicalDeviceFoo2"/>
    <command name="vkCmdCopy2KHR" alias="vkCmdCopy2"/><command name="vkCmdNewThingKHR" alias="vkCmdNewThing"/>
    <command name="vkCmdNoCoreEXT" alias="vkCmdSomethingNV"/>
    <command api="vulkansc"><proto><type>void</type> <name>vkScOnlyKHR</name></proto><param><type>VkDevice</type> <name>device</name></param></command>
  </commands>
  <feature api="vulkan" name="VK_VERSION_1_0" number="1.0">%(v10)s</feature>
  <feature api="vulkan" name="VK_VERSION_1_1" number="1.1">%(v11)s</feature>
  <feature api="vulkan" name="VK_VERSION_1_4" number="1.4">%(v14)s</feature>
  <feature api="vulkansc" name="VKSC_VERSION_1_0" number="1.0">%(sc)s</feature>
  <extensions>%(extensions)s</extensions></registry>
""" % {
    "commands": "".join('<command><proto><type>VkResult</type> <name>%s</name></proto><param><type>%s</type> '
                        '<name>h</name></param></command>' % tuple(c.split(":")) for c in COMMANDS.split()),
    "v10": _require("vkCreateInstance vkGetPhysicalDeviceFoo vkQueueSubmit vkGetDeviceQueue vkGetDeviceProcAddr")
    + _require("vkCmdDraw vkDestroyDevice"),
    "v11": _require("vkCmdCopy2 vkEnumerateInstanceVersion vkGetPhysicalDeviceFoo2"),
    "v14": _require("vkCmdNewThing"), "sc": _require("vkScOnlyKHR"),
    "extensions": "".join([
        _extension("VK_KHR_surface", 1, _require("vkDestroySurfaceKHR")),
        _extension("VK_KHR_swapchain", 2, _require("vkQueuePresentKHR"),
                   _require("vkGetPhysicalDevicePresentRectanglesKHR vkGetDeviceGroupOnlyVersionedKHR",
                            ' feature="VK_VERSION_1_1"'), _require("vkScOnlyKHR", ' api="vulkansc"')),
        _extension("VK_KHR_get_foo2", 3, _require("vkGetPhysicalDeviceFoo2KHR vkCmdNewThingKHR")),
        _extension("VK_NV_not_in_catalog", 4, _require("vkCmdSomethingNV")),
        _extension("VK_KHR_device_group", 5, _require("vkCmdCopy2KHR"),
                   _require("vkGetPhysicalDevicePresentRectanglesKHR", ' extension="VK_KHR_surface"'),
                   _require("vkCmdBothKHR", ' depends="VK_KHR_swapchain+VK_EXT_extra,VK_VERSION_1_2"')),
        _extension("VK_EXT_dyn", 6, _require("vkCmdSetDynEXT vkCmdSetSwizzleNV vkCmdNoCoreEXT"),
                   _require("vkCmdSomethingNV", ' extension="VK_NV_not_in_catalog"')),
        _extension("VK_EXT_disabled", 7, _require("vkCmdSetDynEXT"), supported="disabled")])}

# Deliberately not in registry order: the catalog follows the registry.
FRAGMENT_EXTENSIONS = ("VK_EXT_dyn", "VK_KHR_device_group", "VK_KHR_get_foo2",
                       "VK_KHR_swapchain", "VK_KHR_surface")


class FragmentTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.tmp)
        self.path = os.path.join(self.tmp, "vk.xml")
        with open(self.path, "w") as f:
            f.write(FRAGMENT)
        self.registry = gen.load_registry(self.path)
        self.catalog = gen.build_catalog(self.registry, FRAGMENT_EXTENSIONS)
        self.instance, self.device = gen.build_tables(self.registry, self.catalog)

    def test_catalog_rows(self):
        # Other vendors' interaction commands (vkCmdSetSwizzleNV, vkCmdSomethingNV) and Vulkan SC parts
        # are left out; a core name only for an alias of a known core command of a version with slots;
        # providers: a version-conditional listing is dropped where another extension lists the command
        # unconditionally, a listing only under a version condition counts, every extension of a depends
        # expression is named (versions dropped, sorted), a disabled extension adds nothing.
        self.assertNotIn("vkScOnlyKHR", self.registry.commands)
        self.assertEqual([(e.name, e.core_name, e.extensions) for e in self.catalog], [
            ("vkDestroySurfaceKHR", "", ("VK_KHR_surface",)),
            ("vkQueuePresentKHR", "", ("VK_KHR_swapchain",)),
            ("vkGetPhysicalDevicePresentRectanglesKHR", "", ("VK_KHR_device_group", "VK_KHR_surface")),
            ("vkGetDeviceGroupOnlyVersionedKHR", "", ("VK_KHR_swapchain",)),
            ("vkGetPhysicalDeviceFoo2KHR", "vkGetPhysicalDeviceFoo2", ("VK_KHR_get_foo2",)),
            ("vkCmdNewThingKHR", "", ("VK_KHR_get_foo2",)),
            ("vkCmdCopy2KHR", "vkCmdCopy2", ("VK_KHR_device_group",)),
            ("vkCmdBothKHR", "", ("VK_EXT_extra", "VK_KHR_device_group", "VK_KHR_swapchain")),
            ("vkCmdSetDynEXT", "", ("VK_EXT_dyn",)),
            ("vkCmdNoCoreEXT", "", ("VK_EXT_dyn",))])

    def test_table_order(self):
        # Core slots by version (1.4 has none), then the catalog's.
        self.assertEqual(self.instance, [gen.Slot(n, v) for n, v in (
            ("vkCreateInstance", (1, 0)), ("vkGetPhysicalDeviceFoo", (1, 0)), ("vkEnumerateInstanceVersion", (1, 1)),
            ("vkGetPhysicalDeviceFoo2", (1, 1)), ("vkDestroySurfaceKHR", None),
            ("vkGetPhysicalDevicePresentRectanglesKHR", None), ("vkGetPhysicalDeviceFoo2KHR", None))])
        self.assertEqual(" ".join(s.name for s in self.device), "vkGetDeviceProcAddr vkDestroyDevice vkGetDeviceQueue "
                         "vkQueueSubmit vkCmdDraw vkCmdCopy2 vkQueuePresentKHR vkGetDeviceGroupOnlyVersionedKHR "
                         "vkCmdNewThingKHR vkCmdCopy2KHR vkCmdBothKHR vkCmdSetDynEXT vkCmdNoCoreEXT")

    def test_rendered_files_and_a_stale_one(self):
        files, summary = gen.generate(self.path, FRAGMENT_EXTENSIONS)
        self.assertEqual(summary, "catalog entries: 10, extensions: 5, instance slots: 7, device slots: 13")
        for text in files.values():
            self.assertTrue(text.startswith("// Generated by tools/gen_vk_tables.py from vk.xml "
                                            "(header version 42). Do not edit.\n"))
        for name, line in [
                (gen.DISPATCH_HEADER, "sizeof(VkInstanceFunctionTable) == 7 * sizeof(PFN_vkVoidFunction)"),
                (gen.DISPATCH_HEADER, "sizeof(VkDeviceFunctionTable) == 13 * sizeof(PFN_vkVoidFunction)"),
                (gen.DISPATCH_HEADER, "    PFN_vkCmdCopy2KHR vkCmdCopy2KHR = nullptr;\n"),
                (gen.DISPATCH_SOURCE, '{"vkEnumerateInstanceVersion", VK_API_VERSION_1_1, '
                                      'offsetof(VkInstanceFunctionTable, vkEnumerateInstanceVersion)},'),
                (gen.DISPATCH_SOURCE, '{"vkCmdCopy2KHR", 0, offsetof(VkDeviceFunctionTable, vkCmdCopy2KHR)},'),
                (gen.CATALOG_HEADER, "kExtensionCatalogProviderSlots = 4;"),  # three providers and the end
                (gen.CATALOG_SOURCE, '{"vkCmdBothKHR", 0, "", {"VK_EXT_extra", "VK_KHR_device_group", '
                                     '"VK_KHR_swapchain", nullptr}},'),
                (gen.CATALOG_SOURCE, '{"vkGetPhysicalDeviceFoo2KHR", 1, "vkGetPhysicalDeviceFoo2", '
                                     '{"VK_KHR_get_foo2", nullptr}},')]:
            self.assertIn(line, files[name])
        self.assertEqual(files, gen.generate(self.path, FRAGMENT_EXTENSIONS)[0])

    def test_unknown_catalog_extension_is_an_error(self):
        with self.assertRaisesRegex(gen.RegistryError, "VK_EXT_disabled"):
            gen.build_catalog(self.registry, FRAGMENT_EXTENSIONS + ("VK_EXT_disabled",))


@unittest.skipUnless(os.path.exists(gen.DEFAULT_REGISTRY), "no vk.xml installed")
class SystemRegistryTest(unittest.TestCase):
    def test_rows_the_layer_relies_on(self):
        rows = {e.name: (int(e.instance_level), e.core_name, e.extensions)
                for e in gen.build_catalog(gen.load_registry(gen.DEFAULT_REGISTRY))}
        p2 = ("VK_KHR_get_physical_device_properties2",)
        expected = {
            "vkDestroySurfaceKHR": (1, "", ("VK_KHR_surface",)),
            "vkGetPhysicalDevicePresentRectanglesKHR": (1, "", ("VK_KHR_device_group", "VK_KHR_surface")),
            "vkGetPhysicalDeviceFeatures2KHR": (1, "vkGetPhysicalDeviceFeatures2", p2),
            "vkGetPhysicalDeviceProperties2KHR": (1, "vkGetPhysicalDeviceProperties2", p2),
            "vkCreateAndroidSurfaceKHR": (1, "", ("VK_KHR_android_surface",)),
            "vkCmdPushDescriptorSetWithTemplateKHR":
                (0, "", ("VK_KHR_descriptor_update_template", "VK_KHR_push_descriptor")),
            "vkCmdWaitEvents2KHR": (0, "vkCmdWaitEvents2", ("VK_KHR_synchronization2",)),
            "vkQueuePresentKHR": (0, "", ("VK_KHR_swapchain",)),
            "vkCmdSetFragmentShadingRateKHR": (0, "", ("VK_KHR_fragment_shading_rate",)),
        }
        self.assertEqual({n: rows.get(n) for n in expected}, expected)


if __name__ == "__main__":
    unittest.main()
