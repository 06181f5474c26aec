#!/usr/bin/env python3
"""Tests of tools/gen_vk_tables.py on a small hand-written registry, and of the
checked-in output against the system's vk.xml when it is installed."""

import os
import shutil
import sys
import tempfile
import textwrap
import unittest

REPO_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO_ROOT, "tools"))

import gen_vk_tables as gen  # noqa: E402


def _cmd(name, first_type, first_param="h"):
    return ('<command><proto><type>VkResult</type> <name>%s</name></proto>'
            '<param><type>%s</type> <name>%s</name></param></command>'
            % (name, first_type, first_param))


# Mirrors the shapes of the real registry: extension commands listed by
# several extensions, blocks conditional on a version or on other extensions,
# promotion aliases, another vendor's interaction command, Vulkan SC parts.
FRAGMENT = textwrap.dedent("""\
    <registry>
      <tags><tag name="KHR"/><tag name="EXT"/><tag name="NV"/></tags>
      <types>
        <type category="define">#define <name>VK_HEADER_VERSION</name> 42</type>
      </types>
      <commands>
        %(commands)s
        <command name="vkGetPhysicalDeviceFoo2KHR" alias="vkGetPhysicalDeviceFoo2"/>
        <command name="vkCmdCopy2KHR" alias="vkCmdCopy2"/>
        <command name="vkCmdNewThingKHR" alias="vkCmdNewThing"/>
        <command name="vkCmdNoCoreEXT" alias="vkCmdSomethingNV"/>
        <command api="vulkansc"><proto><type>void</type> <name>vkScOnlyKHR</name></proto><param><type>VkDevice</type> <name>device</name></param></command>
      </commands>
      <feature api="vulkan" name="VK_VERSION_1_0" number="1.0">
        <require>
          <command name="vkCreateInstance"/>
          <command name="vkGetPhysicalDeviceFoo"/>
          <command name="vkQueueSubmit"/>
          <command name="vkGetDeviceQueue"/>
          <command name="vkGetDeviceProcAddr"/>
        </require>
        <require>
          <command name="vkCmdDraw"/>
          <command name="vkDestroyDevice"/>
        </require>
      </feature>
      <feature api="vulkan" name="VK_VERSION_1_1" number="1.1">
        <require>
          <command name="vkCmdCopy2"/>
          <command name="vkEnumerateInstanceVersion"/>
          <command name="vkGetPhysicalDeviceFoo2"/>
        </require>
      </feature>
      <feature api="vulkan" name="VK_VERSION_1_4" number="1.4">
        <require><command name="vkCmdNewThing"/></require>
      </feature>
      <feature api="vulkansc" name="VKSC_VERSION_1_0" number="1.0">
        <require><command name="vkScOnlyKHR"/></require>
      </feature>
      <extensions>
        <extension name="VK_KHR_surface" number="1" supported="vulkan">
          <require><command name="vkDestroySurfaceKHR"/></require>
        </extension>
        <extension name="VK_KHR_swapchain" number="2" supported="vulkan">
          <require>
            <command name="vkQueuePresentKHR"/>
          </require>
          <require feature="VK_VERSION_1_1">
            <command name="vkGetPhysicalDevicePresentRectanglesKHR"/>
            <command name="vkGetDeviceGroupOnlyVersionedKHR"/>
          </require>
          <require api="vulkansc">
            <command name="vkScOnlyKHR"/>
          </require>
        </extension>
        <extension name="VK_KHR_get_foo2" number="3" supported="vulkan">
          <require>
            <command name="vkGetPhysicalDeviceFoo2KHR"/>
            <command name="vkCmdNewThingKHR"/>
          </require>
        </extension>
        <extension name="VK_NV_not_in_catalog" number="4" supported="vulkan">
          <require><command name="vkCmdSomethingNV"/></require>
        </extension>
        <extension name="VK_KHR_device_group" number="5" supported="vulkan">
          <require>
            <command name="vkCmdCopy2KHR"/>
          </require>
          <require extension="VK_KHR_surface">
            <command name="vkGetPhysicalDevicePresentRectanglesKHR"/>
          </require>
          <require depends="VK_KHR_swapchain+VK_EXT_extra,VK_VERSION_1_2">
            <command name="vkCmdBothKHR"/>
          </require>
        </extension>
        <extension name="VK_EXT_dyn" number="6" supported="vulkan">
          <require>
            <command name="vkCmdSetDynEXT"/>
            <command name="vkCmdSetSwizzleNV"/>
            <command name="vkCmdNoCoreEXT"/>
          </require>
          <require extension="VK_NV_not_in_catalog">
            <command name="vkCmdSomethingNV"/>
          </require>
        </extension>
        <extension name="VK_EXT_disabled" number="7" supported="disabled">
          <require><command name="vkCmdSetDynEXT"/></require>
        </extension>
      </extensions>
    </registry>
    """) % {"commands": "\n    ".join([
        _cmd("vkCreateInstance", "VkInstanceCreateInfo"),
        _cmd("vkEnumerateInstanceVersion", "uint32_t"),
        _cmd("vkGetPhysicalDeviceFoo", "VkPhysicalDevice"),
        _cmd("vkGetPhysicalDeviceFoo2", "VkPhysicalDevice"),
        _cmd("vkGetDeviceProcAddr", "VkDevice"),
        _cmd("vkDestroyDevice", "VkDevice"),
        _cmd("vkGetDeviceQueue", "VkDevice"),
        _cmd("vkQueueSubmit", "VkQueue"),
        _cmd("vkCmdDraw", "VkCommandBuffer"),
        _cmd("vkCmdCopy2", "VkCommandBuffer"),
        _cmd("vkCmdNewThing", "VkCommandBuffer"),
        _cmd("vkDestroySurfaceKHR", "VkInstance"),
        _cmd("vkQueuePresentKHR", "VkQueue"),
        _cmd("vkGetPhysicalDevicePresentRectanglesKHR", "VkPhysicalDevice"),
        _cmd("vkGetDeviceGroupOnlyVersionedKHR", "VkDevice"),
        _cmd("vkCmdBothKHR", "VkCommandBuffer"),
        _cmd("vkCmdSetDynEXT", "VkCommandBuffer"),
        _cmd("vkCmdSetSwizzleNV", "VkCommandBuffer"),
        _cmd("vkCmdSomethingNV", "VkCommandBuffer"),
    ])}

# Deliberately not in registry order: the catalog follows the registry.
FRAGMENT_EXTENSIONS = ("VK_EXT_dyn", "VK_KHR_device_group", "VK_KHR_get_foo2",
                       "VK_KHR_swapchain", "VK_KHR_surface")


class FragmentTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp()
        self.path = os.path.join(self.tmp, "vk.xml")
        with open(self.path, "w") as f:
            f.write(FRAGMENT)
        self.registry = gen.load_registry(self.path)
        self.catalog = gen.build_catalog(self.registry, FRAGMENT_EXTENSIONS)
        self.entries = {e.name: e for e in self.catalog}
        self.instance, self.device = gen.build_tables(self.registry, self.catalog)

    def tearDown(self):
        shutil.rmtree(self.tmp)

    def test_level_follows_first_parameter_and_aliases(self):
        levels = {name: self.registry.is_instance_level(name) for name in (
            "vkCreateInstance", "vkEnumerateInstanceVersion",
            "vkGetPhysicalDeviceFoo", "vkDestroySurfaceKHR",
            "vkGetPhysicalDeviceFoo2KHR",
            "vkGetDeviceProcAddr", "vkQueueSubmit", "vkCmdDraw",
            "vkCmdCopy2KHR")}
        self.assertEqual(levels, {
            "vkCreateInstance": True, "vkEnumerateInstanceVersion": True,
            "vkGetPhysicalDeviceFoo": True, "vkDestroySurfaceKHR": True,
            "vkGetPhysicalDeviceFoo2KHR": True,
            "vkGetDeviceProcAddr": False, "vkQueueSubmit": False,
            "vkCmdDraw": False, "vkCmdCopy2KHR": False})

    def test_catalog_membership_and_order(self):
        self.assertEqual([e.name for e in self.catalog], [
            "vkDestroySurfaceKHR",
            "vkQueuePresentKHR",
            "vkGetPhysicalDevicePresentRectanglesKHR",
            "vkGetDeviceGroupOnlyVersionedKHR",
            "vkGetPhysicalDeviceFoo2KHR",
            "vkCmdNewThingKHR",
            "vkCmdCopy2KHR",
            "vkCmdBothKHR",
            "vkCmdSetDynEXT",
            "vkCmdNoCoreEXT",
        ])

    def test_other_vendors_interaction_commands_are_left_out(self):
        self.assertNotIn("vkCmdSetSwizzleNV", self.entries)
        self.assertNotIn("vkCmdSomethingNV", self.entries)

    def test_vulkansc_only_parts_are_ignored(self):
        self.assertNotIn("vkScOnlyKHR", self.entries)
        self.assertNotIn("vkScOnlyKHR", self.registry.commands)

    def test_core_name_is_the_alias_only_when_it_is_a_known_core_command(self):
        self.assertEqual(self.entries["vkGetPhysicalDeviceFoo2KHR"].core_name,
                         "vkGetPhysicalDeviceFoo2")
        self.assertEqual(self.entries["vkCmdCopy2KHR"].core_name, "vkCmdCopy2")
        # An alias of another extension's command, and one of a version the
        # tables have no slots for, give no core name.
        self.assertEqual(self.entries["vkCmdNoCoreEXT"].core_name, "")
        self.assertEqual(self.entries["vkCmdNewThingKHR"].core_name, "")
        self.assertEqual(self.entries["vkDestroySurfaceKHR"].core_name, "")

    def test_providers(self):
        providers = {e.name: e.extensions for e in self.catalog}
        # The version-conditional listing in the swapchain is dropped because
        # device_group lists it unconditionally on a version.
        self.assertEqual(providers["vkGetPhysicalDevicePresentRectanglesKHR"],
                         ("VK_KHR_device_group", "VK_KHR_surface"))
        # Listed only under a version condition: that block counts.
        self.assertEqual(providers["vkGetDeviceGroupOnlyVersionedKHR"],
                         ("VK_KHR_swapchain",))
        # depends expressions: every extension named, versions dropped, sorted.
        self.assertEqual(providers["vkCmdBothKHR"],
                         ("VK_EXT_extra", "VK_KHR_device_group", "VK_KHR_swapchain"))
        # A disabled extension listing the same command adds nothing.
        self.assertEqual(providers["vkCmdSetDynEXT"], ("VK_EXT_dyn",))

    def test_table_order(self):
        self.assertEqual(self.instance, [
            gen.Slot("vkCreateInstance", (1, 0)),
            gen.Slot("vkGetPhysicalDeviceFoo", (1, 0)),
            gen.Slot("vkEnumerateInstanceVersion", (1, 1)),
            gen.Slot("vkGetPhysicalDeviceFoo2", (1, 1)),
            gen.Slot("vkDestroySurfaceKHR", None),
            gen.Slot("vkGetPhysicalDevicePresentRectanglesKHR", None),
            gen.Slot("vkGetPhysicalDeviceFoo2KHR", None),
        ])
        self.assertEqual([s.name for s in self.device], [
            "vkGetDeviceProcAddr", "vkDestroyDevice", "vkGetDeviceQueue",
            "vkQueueSubmit", "vkCmdDraw",
            "vkCmdCopy2",
            "vkQueuePresentKHR", "vkGetDeviceGroupOnlyVersionedKHR",
            "vkCmdNewThingKHR", "vkCmdCopy2KHR", "vkCmdBothKHR",
            "vkCmdSetDynEXT", "vkCmdNoCoreEXT",
        ])
        # A 1.4 command has no core slot.
        self.assertNotIn("vkCmdNewThing", [s.name for s in self.device])

    def test_rendered_files(self):
        files, summary = gen.generate(self.path, FRAGMENT_EXTENSIONS)
        self.assertEqual(summary, "catalog entries: 10, extensions: 5, "
                                  "instance slots: 7, device slots: 13")
        for text in files.values():
            self.assertTrue(text.startswith(
                "// Generated by tools/gen_vk_tables.py from vk.xml "
                "(header version 42). Do not edit.\n"))
        header = files[gen.DISPATCH_HEADER]
        self.assertIn("sizeof(VkInstanceFunctionTable) == 7 * sizeof(PFN_vkVoidFunction)", header)
        self.assertIn("sizeof(VkDeviceFunctionTable) == 13 * sizeof(PFN_vkVoidFunction)", header)
        self.assertIn("    PFN_vkCmdCopy2KHR vkCmdCopy2KHR = nullptr;\n", header)
        source = files[gen.DISPATCH_SOURCE]
        self.assertIn('{"vkEnumerateInstanceVersion", VK_API_VERSION_1_1, '
                      'offsetof(VkInstanceFunctionTable, vkEnumerateInstanceVersion)},', source)
        self.assertIn('{"vkCmdCopy2KHR", 0, offsetof(VkDeviceFunctionTable, vkCmdCopy2KHR)},', source)
        # Three providers at most, plus the terminator.
        self.assertIn("kExtensionCatalogProviderSlots = 4;", files[gen.CATALOG_HEADER])
        self.assertIn('{"vkCmdBothKHR", 0, "", {"VK_EXT_extra", "VK_KHR_device_group", '
                      '"VK_KHR_swapchain", nullptr}},', files[gen.CATALOG_SOURCE])
        self.assertIn('{"vkGetPhysicalDeviceFoo2KHR", 1, "vkGetPhysicalDeviceFoo2", '
                      '{"VK_KHR_get_foo2", nullptr}},', files[gen.CATALOG_SOURCE])
        self.assertEqual(files, gen.generate(self.path, FRAGMENT_EXTENSIONS)[0])

    def test_check_reports_a_stale_file(self):
        files, _ = gen.generate(self.path, FRAGMENT_EXTENSIONS)
        out = os.path.join(self.tmp, "out")
        gen.write_files(files, out)
        self.assertEqual(gen.diff_against(files, out), "")
        stale = os.path.join(out, gen.CATALOG_SOURCE)
        with open(stale) as f:
            text = f.read()
        with open(stale, "w") as f:
            f.write(text.replace('"vkQueuePresentKHR", 0', '"vkQueuePresentKHR", 1'))
        diff = gen.diff_against(files, out)
        self.assertIn('-    {"vkQueuePresentKHR", 1', diff)
        self.assertIn('+    {"vkQueuePresentKHR", 0', diff)

    def test_unknown_catalog_extension_is_an_error(self):
        with self.assertRaisesRegex(gen.RegistryError, "VK_EXT_disabled"):
            gen.build_catalog(self.registry, FRAGMENT_EXTENSIONS + ("VK_EXT_disabled",))


SYSTEM_REGISTRY = gen.DEFAULT_REGISTRY


@unittest.skipUnless(os.path.exists(SYSTEM_REGISTRY), "no vk.xml installed")
class SystemRegistryTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        registry = gen.load_registry(SYSTEM_REGISTRY)
        cls.catalog = gen.build_catalog(registry)
        cls.instance, cls.device = gen.build_tables(registry, cls.catalog)

    def test_rows_the_layer_relies_on(self):
        rows = {e.name: (int(e.instance_level), e.core_name, e.extensions)
                for e in self.catalog}
        expected = {
            "vkDestroySurfaceKHR": (1, "", ("VK_KHR_surface",)),
            "vkGetPhysicalDevicePresentRectanglesKHR":
                (1, "", ("VK_KHR_device_group", "VK_KHR_surface")),
            "vkGetPhysicalDeviceFeatures2KHR":
                (1, "vkGetPhysicalDeviceFeatures2", ("VK_KHR_get_physical_device_properties2",)),
            "vkGetPhysicalDeviceProperties2KHR":
                (1, "vkGetPhysicalDeviceProperties2", ("VK_KHR_get_physical_device_properties2",)),
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
