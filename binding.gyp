# zelbridge.node for the runtime node-gyp is given (the running Node, --nodedir, or --target/--runtime/--dist-url),
# with the V8 defines node-gyp derives from that runtime's headers. The sources are listed in sources.gypi, which the
# developer build (CMake) reads too.
{
  'includes': ['sources.gypi'],
  'variables': {
    # npm config zelbridge_host_resolved_x11=true (or --zelbridge-host-resolved-x11): record no X library in the
    # module; a host that already has libX11 and libXi loaded resolves them at load time.
    'zelbridge_host_resolved_x11%': 'false',
  },
  'targets': [
    {
      'target_name': 'zelbridge',
      # Component sources last, in registration order: their static initialisers run in link order.
      'sources': [
        '<@(zelbridge_common_sources)',
        '<@(zelbridge_binding_sources)',
        '<@(zelbridge_input_sources)',
        '<@(zelbridge_capture_sources)',
        '<@(zelbridge_entry_sources)',
        '<@(zelbridge_component_sources)',
      ],
      'include_dirs': ['.', 'common/include'],
      'cflags': ['-fvisibility=hidden', '<!@(pkg-config --cflags x11 xi)'],
      # The code needs C++20, exceptions and RTTI (interface queries compare type_info).
      'cflags_cc!': ['-std=gnu++17', '-std=gnu++20', '-fno-exceptions', '-fno-rtti'],
      'cflags_cc': ['-std=c++20', '-fexceptions', '-frtti', '-fvisibility-inlines-hidden'],
      'ldflags': ['-Wl,--exclude-libs,ALL', '-Wl,--as-needed'],
      'conditions': [
        ['zelbridge_host_resolved_x11 in "true 1 on yes"', {
          'ldflags': ['-Wl,--unresolved-symbols=ignore-all'],
        }, {
          'libraries': ['<!@(pkg-config --libs x11 xi)'],
        }],
      ],
    },
    {
      # The build record beside the module: the runtime, its module version and V8 build options, as node-gyp
      # configured them (build/config.gypi and the module's generated makefile).
      'target_name': 'zelbridge_build_record',
      'type': 'none',
      'dependencies': ['zelbridge'],
      'actions': [{
        'action_name': 'build_record',
        'inputs': ['<(PRODUCT_DIR)/zelbridge.node', 'scripts/build-record.js'],
        'outputs': ['<(PRODUCT_DIR)/zelbridge-build.json'],
        'action': ['node', 'scripts/build-record.js', '<(PRODUCT_DIR)/..', '<@(_outputs)'],
      }],
    },
  ],
}
