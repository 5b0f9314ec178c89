#!/usr/bin/env python3
"""Reads a module's compile inputs out of Android.bp, as Soong would see them.

    android-bp-flags.py ANDROID_BP MODULE srcs        the module's sources, one a line
    android-bp-flags.py ANDROID_BP MODULE flags       its own compile flags, one a line
    android-bp-flags.py ANDROID_BP MODULE deps        the libraries it names that Android.bp does
                                                      not define (their headers come from elsewhere)
    [--config NAMESPACE.VARIABLE=VALUE ...]           Soong config variables, as a BoardConfig.mk
                                                      sets them (unset: conditions_default)

"flags" are what the module adds on top of the toolchain's defaults, in Soong's order: cflags,
cppflags, -frtti or -fno-rtti, -std from cpp_std, then -I for local_include_dirs, the module's own
folder, export_include_dirs and the include folders exported by the libraries it links from this
file. Defaults come first, the module's own values after them, so its flags win.

Only the subset of Blueprint this project uses is read: variables, modules with properties,
strings, booleans, integers, lists, maps, '+' and soong_config_module_type over cc_defaults.
Anything else is an error rather than a guess.
"""

import json
import os
import re
import sys


class BlueprintError(Exception):
    pass


# ---- Parsing --------------------------------------------------------------------------------

TOKEN = re.compile(
    r"""
    (?P<space>\s+|//[^\n]*|/\*.*?\*/)
  | (?P<string>"(?:[^"\\\n]|\\.)*")
  | (?P<int>-?\d+)
  | (?P<ident>[A-Za-z_][A-Za-z0-9_]*)
  | (?P<op>\+=|[{}\[\]():,=+])
    """,
    re.VERBOSE | re.DOTALL,
)


def tokenize(text, path):
    tokens, position = [], 0
    while position < len(text):
        match = TOKEN.match(text, position)
        if match is None:
            line = text.count("\n", 0, position) + 1
            raise BlueprintError(f"{path}:{line}: cannot read {text[position:position + 20]!r}")
        kind = match.lastgroup
        if kind != "space":
            tokens.append((kind, match.group(), text.count("\n", 0, position) + 1))
        position = match.end()
    tokens.append(("end", "", text.count("\n") + 1))
    return tokens


class Parser:
    def __init__(self, text, path):
        self.tokens = tokenize(text, path)
        self.index = 0
        self.path = path
        self.variables = {}
        self.modules = []  # (type, properties, line)

    def peek(self):
        return self.tokens[self.index]

    def take(self, value=None, kind=None):
        token = self.tokens[self.index]
        if (value is not None and token[1] != value) or (kind is not None and token[0] != kind):
            wanted = value if value is not None else kind
            raise BlueprintError(f"{self.path}:{token[2]}: expected {wanted}, found {token[1]!r}")
        self.index += 1
        return token

    def parse(self):
        while self.peek()[0] != "end":
            name = self.take(kind="ident")
            if self.peek()[1] in ("=", "+="):
                operator = self.take()[1]
                value = self.expression()
                if operator == "+=":
                    if name[1] not in self.variables:
                        raise BlueprintError(f"{self.path}:{name[2]}: += to unset {name[1]}")
                    value = add(self.variables[name[1]], value, self.path, name[2])
                self.variables[name[1]] = value
            else:
                self.modules.append((name[1], self.properties("{", "}"), name[2]))
        return self

    def properties(self, opening, closing):
        self.take(opening)
        result = {}
        while self.peek()[1] != closing:
            key = self.take(kind="ident")
            self.take(":")
            if key[1] in result:
                raise BlueprintError(f"{self.path}:{key[2]}: {key[1]} given twice")
            result[key[1]] = self.expression()
            if self.peek()[1] != closing:
                self.take(",")
        self.take(closing)
        return result

    def expression(self):
        value = self.operand()
        while self.peek()[1] == "+":
            line = self.take()[2]
            value = add(value, self.operand(), self.path, line)
        return value

    def operand(self):
        kind, text, line = self.peek()
        if kind == "string":
            self.take()
            try:
                return json.loads(text)
            except ValueError:
                raise BlueprintError(f"{self.path}:{line}: escape in {text} not read by this script")
        if kind == "int":
            self.take()
            return int(text)
        if text == "[":
            self.take()
            items = []
            while self.peek()[1] != "]":
                items.append(self.expression())
                if self.peek()[1] != "]":
                    self.take(",")
            self.take("]")
            return items
        if text == "{":
            return self.properties("{", "}")
        if kind == "ident":
            self.take()
            if text in ("true", "false"):
                return text == "true"
            if self.peek()[1] == "(":
                raise BlueprintError(f"{self.path}:{line}: {text}(...) is not read by this script")
            if text not in self.variables:
                raise BlueprintError(f"{self.path}:{line}: unknown variable {text}")
            return self.variables[text]
        raise BlueprintError(f"{self.path}:{line}: unexpected {text!r}")


def add(left, right, path, line):
    if type(left) is not type(right) or not isinstance(left, (str, list, int)):
        raise BlueprintError(f"{path}:{line}: cannot add {type(left).__name__} and "
                             f"{type(right).__name__}")
    return left + right


# ---- Soong's view of a module ---------------------------------------------------------------

LIST_PROPERTIES = ("srcs", "cflags", "cppflags", "local_include_dirs", "export_include_dirs",
                   "header_libs", "static_libs", "whole_static_libs", "shared_libs")
SCALAR_PROPERTIES = ("rtti", "cpp_std", "include_build_directory")
# Variant blocks that apply to the shared library on an arm64 device, in Soong's order.
VARIANT_BLOCKS = (("arch", "arm64"), ("target", "android"), ("shared", None))


def merge(into, properties):
    """Adds `properties` after what `into` holds: lists append, set scalars replace."""
    for key in LIST_PROPERTIES:
        into[key] = into.get(key, []) + list(properties.get(key, []))
    for key in SCALAR_PROPERTIES:
        if key in properties:
            into[key] = properties[key]


class Blueprint:
    def __init__(self, path, config):
        with open(path, encoding="utf-8") as source:
            parser = Parser(source.read(), path).parse()
        self.path = path
        self.config = config
        # module type name -> (namespace, bool variables, properties they may set)
        self.config_types = {}
        self.modules = {}
        for module_type, properties, line in parser.modules:
            if module_type == "soong_config_module_type":
                self.config_types[properties["name"]] = (
                    properties["config_namespace"], properties.get("bool_variables", []),
                    properties.get("properties", []))
                continue
            name = properties.get("name")
            if name is None:
                continue  # package {}, license stanzas and the like
            if name in self.modules:
                raise BlueprintError(f"{path}:{line}: module {name} defined twice")
            self.modules[name] = (module_type, properties)

    def own_properties(self, name):
        """The module's properties with its variant and config blocks folded in."""
        module_type, properties = self.modules[name]
        merged = {}
        merge(merged, properties)
        for block, key in VARIANT_BLOCKS:
            inner = properties.get(block, {})
            if key is not None:
                inner = inner.get(key, {})
            merge(merged, inner)
        if module_type in self.config_types:
            namespace, variables, settable = self.config_types[module_type]
            for variable, blocks in properties.get("soong_config_variables", {}).items():
                if variable not in variables:
                    raise BlueprintError(f"{self.path}: {name}: {variable} is not a bool variable "
                                         f"of {module_type}")
                for block in [blocks] + [blocks.get("conditions_default", {})]:
                    for key in block:
                        if key != "conditions_default" and key not in settable:
                            raise BlueprintError(f"{self.path}: {name}: {module_type} may not "
                                                 f"set {key}")
                value = self.config.get(f"{namespace}.{variable}", "")
                chosen = value not in ("", "false")
                merge(merged, {k: v for k, v in blocks.items() if k != "conditions_default"}
                      if chosen else blocks.get("conditions_default", {}))
        return merged

    def resolved(self, name, seen=()):
        """Defaults first (each with its own defaults), then the module itself."""
        if name not in self.modules:
            raise BlueprintError(f"{self.path}: no module named {name}")
        if name in seen:
            raise BlueprintError(f"{self.path}: defaults loop through {name}")
        merged = {}
        for default in self.modules[name][1].get("defaults", []):
            merge(merged, self.resolved(default, seen + (name,)))
        merge(merged, self.own_properties(name))
        return merged

    def dependencies(self, module):
        return module["header_libs"] + module["whole_static_libs"] + module["static_libs"] + \
            module["shared_libs"]

    def flags(self, name):
        module = self.resolved(name)
        folder = os.path.dirname(self.path) or "."
        flags = list(module["cflags"]) + list(module["cppflags"])
        flags.append("-frtti" if module.get("rtti") else "-fno-rtti")
        if "cpp_std" in module:
            flags.append("-std=" + module["cpp_std"])
        include_dirs = list(module["local_include_dirs"])
        if module.get("include_build_directory", True):
            include_dirs.append(".")
        include_dirs += module["export_include_dirs"]
        for dependency in self.dependencies(module):
            if dependency in self.modules:
                include_dirs += self.resolved(dependency)["export_include_dirs"]
        for directory in include_dirs:
            flags.append("-I" + os.path.normpath(os.path.join(folder, directory)))
        return flags

    def external_dependencies(self, name):
        module = self.resolved(name)
        return [d for d in dict.fromkeys(self.dependencies(module)) if d not in self.modules]

    def srcs(self, name):
        folder = os.path.dirname(self.path) or "."
        return [os.path.normpath(os.path.join(folder, src)) for src in self.resolved(name)["srcs"]]


def main(argv):
    config = {}
    arguments = []
    iterator = iter(argv[1:])
    for argument in iterator:
        if argument == "--config":
            key, _, value = next(iterator, "").partition("=")
            config[key] = value
        else:
            arguments.append(argument)
    if len(arguments) != 3 or arguments[2] not in ("srcs", "flags", "deps"):
        sys.stderr.write(__doc__)
        return 2
    path, module, what = arguments
    try:
        blueprint = Blueprint(path, config)
        lines = {"srcs": blueprint.srcs, "flags": blueprint.flags,
                 "deps": blueprint.external_dependencies}[what](module)
    except (BlueprintError, OSError, KeyError) as error:
        sys.stderr.write(f"android-bp-flags: {error}\n")
        return 1
    for line in lines:
        print(line)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
