#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Holds Android.bp to the CMake build: check-soong.py WORK_DIR [ANDROID_BP]

Each library and program is reduced to the same few facts on both sides: which source files it is
made of and with which flags each is compiled, which folders of the tree it includes from, which
libraries it loads, its version script, other link options, its file name. CMake's side is its own
account of a tree that is configured in WORK_DIR (the file API); Soong's side is Android.bp as
mini-soong parses it, with defaults merged. Prints each difference and leaves with 1; with 2 when
one side cannot be read.

Flags are compared where they change what a source means or which faults are found: language
standard, -D, -W and -f. Header-only libraries leave no trace in a CMake build, so header_libs of
others are not compared.
"""
import json
import pathlib
import shlex
import subprocess
import sys
from dataclasses import dataclass, field

ROOT = pathlib.Path(__file__).resolve().parent.parent

# Soong module of each library or program -> CMake target. Static libraries count to their users.
ARTEFACTS = {
    'libkorvane_tunnelrenderer': 'korvane_tunnelrenderer',
    'libkorvane_tunnelrenderer_host': 'korvane_tunnelrenderer',
    'libkorvane_tv': 'korvane_tv',
    'libkorvane_tv_cutils_properties': 'korvane_device_cutils_properties',
    'libkorvane_tv_ui': 'korvane_device_ui',
    'libkorvane_tv_mediasync': 'korvane_device_mediasync',
    'libkorvane_tv_videotunnel': 'korvane_device_videotunnel',
    'libkorvane_tv_display_adapter': 'korvane_device_display_adapter',
    'korvane-tv': 'korvane-tv',
    'korvane-tv-testbench': 'korvane-tv-testbench',
}
DEVICE = 'libkorvane_tunnelrenderer'
# A device's libcutils has the property calls; an Android tree has a libui of its own for the host.
DEVICE_LIBRARY_OF = {'libcutils_properties': 'libcutils'}
HOST_FILE_OF = {'libkorvane_tv_ui': 'libui'}
# Folders whose programs are CMake's alone, and the library once more, compiled for exploring.
CMAKE_ONLY = ('tests', 'bench')
CMAKE_ONLY_TARGETS = ('explore',)


@dataclass
class Artefact:
    """What both build systems can say of one library or program."""
    file: str
    flags: dict = field(default_factory=dict)  # source -> set of flags
    include_folders: set = field(default_factory=set)
    libraries: set = field(default_factory=set)
    link_options: set = field(default_factory=set)


def fail(text):
    print(f'check-soong: {text}', file=sys.stderr)
    sys.exit(2)


def in_tree(path):
    """A path relative to the tree's root, or None for one outside it."""
    path = (ROOT / path).resolve()
    return str(path.relative_to(ROOT)) if path.is_relative_to(ROOT) else None


def is_compared(flag):
    # Position independence is each build system's own affair, debug information CMake's.
    if flag.startswith(('-Wl,', '-fPIC', '-fPIE', '-femit-class-debug')):
        return False
    return flag.startswith(('-W', '-f', '-D', '-std=')) and not flag.endswith('_EXPORTS')


# CMake's side.

def read_cmake(directory):
    """Configures the tree in a directory and returns CMake's targets by name."""
    api = directory / '.cmake/api/v1'
    (api / 'query').mkdir(parents=True, exist_ok=True)
    (api / 'query/codemodel-v2').touch()
    command = ['cmake', '-S', ROOT, '-B', directory, '-G', 'Ninja', '-DBUILD_TESTING=OFF',
               '-DKORVANE_BENCH=OFF', '-DKORVANE_WERROR=ON',
               # a device tree builds without the window
               '-DKORVANE_SDL_INCLUDE=OFF']
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        fail(f'cmake cannot configure the tree: {done.stderr.strip()}')
    index = json.loads(max((api / 'reply').glob('index-*.json')).read_text())
    model = json.loads((api / 'reply' / index['reply']['codemodel-v2']['jsonFile']).read_text())
    targets = {}
    for entry in model['configurations'][0]['targets']:
        target = json.loads((api / 'reply' / entry['jsonFile']).read_text())
        target['needs'] = [other['id'].split('::')[0] for other in target.get('dependencies', [])]
        targets[target['name']] = target
    return targets


def add_cmake_sources(artefact, target):
    for group in target.get('compileGroups', []):
        common = {flag for part in group['compileCommandFragments']
                  for flag in shlex.split(part['fragment']) if is_compared(flag)}
        common |= {flag for part in group.get('defines', [])
                   if is_compared(flag := f'-D{part["define"]}')}
        for index in group['sourceIndexes']:
            artefact.flags[target['sources'][index]['path']] = common
        artefact.include_folders |= {folder for part in group.get('includes', [])
                                     if (folder := in_tree(part['path']))}


def cmake_artefact(targets, name):
    target = targets[name]
    artefact = Artefact(file=pathlib.Path(target['nameOnDisk']).stem)
    for part in [target] + [targets[other] for other in target['needs']
                            if targets[other]['type'] in ('OBJECT_LIBRARY', 'STATIC_LIBRARY')]:
        add_cmake_sources(artefact, part)
    for part in target['link']['commandFragments']:
        for word in shlex.split(part['fragment']):
            if '.so' in pathlib.Path(word).name and not word.startswith('-'):
                artefact.libraries.add(pathlib.Path(word).name.split('.so')[0])
            elif word.startswith('-Wl,--version-script='):
                artefact.link_options.add(f'version script {in_tree(word.split("=", 1)[1])}')
            # Run paths are the host's affair; Soong refuses undefined symbols by itself.
            elif word.startswith('-Wl,') and 'rpath' not in word and word != '-Wl,--no-undefined':
                artefact.link_options.add(word)
    return artefact


# Soong's side.

def read_soong(path):
    """Modules of a Blueprint file by name, as mini-soong parses them, defaults merged."""
    try:
        from mini_soong.model import Module
        from mini_soong.parser import soong
        from pyparsing import ParseException
    except ImportError as error:
        fail(f'mini-soong is missing ({error}); install it: apt-get install mini-soong')
    try:
        parsed = soong.parseString(path.read_text(), parseAll=True)
    except OSError as error:
        fail(f'cannot read {path}: {error.strerror}')
    except ParseException as error:
        fail(f'{path}:{error.lineno}: mini-soong cannot read this: {error.line.strip()}')
    own = {module.arguments['name']: module.arguments
           for module in parsed if isinstance(module, Module) and 'name' in module.arguments}

    # As Soong merges: lists of the defaults come first, other values are the module's where it has
    # them. mini-soong gives an empty list as a list that holds an empty one.
    def merged(name):
        if name not in own:
            fail(f'{path.name}: the defaults "{name}" are not defined')
        properties = {}
        for layer in [merged(other) for other in own[name].get('defaults', [])] + [own[name]]:
            for key, value in layer.items():
                if isinstance(value, list):
                    value = properties.get(key, []) + [item for item in value if item]
                properties[key] = value
        return properties

    return {name: merged(name) for name in own}


def exported_folders(modules, name):
    """Folders that a module gives to those that use it."""
    module = modules.get(name, {})
    folders = set(module.get('export_include_dirs', []))
    for key in ('export_header_lib_headers', 'export_shared_lib_headers'):
        for other in module.get(key, []):
            folders |= exported_folders(modules, other)
    return folders


def soong_flags(module):
    given = module.get('cflags', []) + module.get('cppflags', [])
    flags = {flag.replace('\\"', '"') for flag in given if is_compared(flag)}
    flags.add(f'-std={module.get("cpp_std")}')
    if not module.get('rtti'):
        flags.add('-fno-rtti')
    # Written as CMake's compiler has it: exceptions are on when nothing is said.
    flags.add('-fno-exceptions')
    if '-fexceptions' in flags:
        flags -= {'-fexceptions', '-fno-exceptions'}
    return flags


def soong_artefact(modules, name):
    module = modules[name]
    artefact = Artefact(file=module.get('stem', name), libraries=set(module.get('shared_libs', [])))
    for part in [module] + [modules[other] for key in ('whole_static_libs', 'static_libs')
                            for other in module.get(key, []) if other in modules]:
        artefact.flags |= dict.fromkeys(part.get('srcs', []), soong_flags(part))
        artefact.include_folders |= {'.', *part.get('local_include_dirs', [])}
        used = [other for key in ('header_libs', 'shared_libs', 'static_libs')
                for other in part.get(key, [])]
        for other in [part['name']] + used:
            artefact.include_folders |= exported_folders(modules, other)
    if 'version_script' in module:
        artefact.link_options.add(f'version script {module["version_script"]}')
    artefact.link_options |= set(module.get('ldflags', []))
    return artefact


def in_androids_names(name, artefact, modules):
    """CMake's artefact under the names that Android.bp uses, the device's or the host's."""
    if name == DEVICE:
        # The platform's own headers take the place of the simulated TV's.
        artefact.include_folders = {folder for folder in artefact.include_folders
                                    if not folder.startswith('tv/')}
        module_of = DEVICE_LIBRARY_OF
    else:
        module_of = {module.get('stem', HOST_FILE_OF.get(other, other)): other
                     for other, module in modules.items() if other != DEVICE}
    artefact.libraries = {module_of.get(library, library) for library in artefact.libraries}
    if HOST_FILE_OF.get(name) == artefact.file:
        artefact.file = name
    return artefact


# The comparison.

def differences(name, cmake, soong):
    """One line for each fact that only one side has."""
    for source in sorted(cmake.flags.keys() - soong.flags.keys()):
        yield f'{name}: {source} is built by CMake but not in Android.bp'
    for source in sorted(soong.flags.keys() - cmake.flags.keys()):
        yield f'{name}: {source} is in Android.bp but not built by CMake'
    both = sorted(cmake.flags.keys() & soong.flags.keys())
    for flag in sorted(set().union(*cmake.flags.values(), *soong.flags.values())):
        for one, other, text in ((cmake, soong, 'CMake compiles with {}, Android.bp does not'),
                                 (soong, cmake, 'Android.bp compiles with {}, CMake does not')):
            sources = [source for source in both
                       if flag in one.flags[source] and flag not in other.flags[source]]
            if sources:
                more = f' and {len(sources) - 1} more' if len(sources) > 1 else ''
                yield f'{name}: {text.format(flag)}: {sources[0]}{more}'
    for kind, does in (('include_folders', 'includes from'), ('libraries', 'links with'),
                       ('link_options', 'links with')):
        ours, theirs = getattr(cmake, kind), getattr(soong, kind)
        for fact in sorted(ours - theirs):
            yield f'{name}: CMake {does} {fact}, Android.bp does not'
        for fact in sorted(theirs - ours):
            yield f'{name}: Android.bp {does} {fact}, CMake does not'
    if cmake.file != soong.file:
        yield f'{name}: the file is called {cmake.file} by CMake, {soong.file} by Android.bp'


def main():
    if len(sys.argv) not in (2, 3):
        fail('usage: check-soong.py WORK_DIR [ANDROID_BP]')
    modules = read_soong(pathlib.Path(sys.argv[2] if len(sys.argv) == 3 else ROOT / 'Android.bp'))
    targets = read_cmake(pathlib.Path(sys.argv[1]).resolve())

    found = []
    for name, target in targets.items():
        if (target['type'] in ('SHARED_LIBRARY', 'EXECUTABLE') and name not in ARTEFACTS.values()
                and target['paths']['source'].split('/')[0] not in CMAKE_ONLY
                and name not in CMAKE_ONLY_TARGETS):
            found.append(f'{name}: built by CMake but no module of Android.bp stands for it')
    found += [f'{name}: there is no {file}' for name, module in modules.items()
              for file in module.get('init_rc', []) + module.get('license_text', [])
              if not (ROOT / file).is_file()]
    for name, target in ARTEFACTS.items():
        if name in modules and target in targets:
            cmake = in_androids_names(name, cmake_artefact(targets, target), modules)
            found += differences(name, cmake, soong_artefact(modules, name))
        else:
            lacking = 'Android.bp has no such module' if target in targets else 'CMake has no target'
            found.append(f'{name} ({target} of CMake): {lacking}')
    if found:
        print('\n'.join(found))
        sys.exit(1)
    print(f'Android.bp and CMake agree on {len(ARTEFACTS)} libraries and programs')


main()
