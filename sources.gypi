{
  "variables": {
    "zelbridge_common_sources": [
      "common/utils/allocator.cpp",
      "common/utils/format.cpp",
      "common/utils/log.cpp",
      "common/utils/runtimecheck.cpp",
      "common/utils/strings.cpp"
    ],
    "zelbridge_binding_sources": [
      "common/v8binding/v8binding.cpp"
    ],
    "zelbridge_input_sources": [
      "bridge/rawinputdriverbase.cpp",
      "bridge/platform/Linux/rawinputdriver-x11.cpp",
      "bridge/platform/Linux/mousetool-linux.cpp",
      "bridge/platform/Linux/xioerror.cpp"
    ],
    "zelbridge_capture_sources": [
      "bridge/pointercapture.cpp"
    ],
    "zelbridge_entry_sources": [
      "bridge/node_module.cpp"
    ],
    "zelbridge_component_sources": [
      "bridge/crashemitter_component.cpp",
      "bridge/diagnostics_component.cpp",
      "bridge/hwsupport_component.cpp"
    ]
  }
}
