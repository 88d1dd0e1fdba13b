#!/usr/bin/python3
# check-recipes.py: reads the Buildroot and Yocto files as far as that goes without either. Kconfig
# and make read Buildroot's, with stand-ins for what Buildroot defines, and Python its parts of the
# recipe; options and libraries that they name must be the library's.
import glob
import os
import re
import subprocess
import sys
import tempfile

import kconfiglib

os.chdir(os.path.dirname(os.path.abspath(__file__)))
os.environ["BR2_EXTERNAL_VEXO_PATH"] = os.path.abspath("buildroot")
os.environ["KCONFIG_WARN_UNDEF"] = "y"


def read(pattern):
    return "\n".join(open(name).read() for name in sorted(glob.glob(pattern, recursive=True)))


def require(truth, fault):
    if not truth:
        sys.exit("check-recipes.py: " + fault)


def check_kconfig():
    symbols = set(re.findall(r"BR2_[A-Z0-9_]+", read("buildroot/package/*/Config.in")))
    absent = {"BR2_STATIC_LIBS", "BR2_PACKAGE_VEXO_PLATFORM"}
    with tempfile.NamedTemporaryFile("w", suffix=".in") as stand_in:
        for symbol in symbols - {"BR2_PACKAGE_VEXO_UTILS"}:
            stand_in.write(f"config {symbol}\n\tbool\n\tdefault {'ny'[symbol not in absent]}\n")
        stand_in.write('source "$BR2_EXTERNAL_VEXO_PATH/Config.in"\n')
        stand_in.flush()
        config = kconfiglib.Kconfig(stand_in.name, warn_to_stderr=False)
    require(not config.warnings, "\n".join(config.warnings))
    package = config.syms["BR2_PACKAGE_VEXO_UTILS"]
    package.set_value("y")
    require(package.str_value == "y", "the package cannot be chosen")


def check_make():
    variables = "SITE SITE_METHOD DEPENDENCIES CONF_OPTS"
    stand_in = f"""define cmake-package
$(foreach v,{variables},$(info $v = $(VEXO_UTILS_$v)))
endef
include $(BR2_EXTERNAL_VEXO_PATH)/external.mk
all: ;
"""
    for device, platform in (("y", "external"), ("", "host")):
        made = subprocess.run(
            ["make", "-f-", "--warn-undefined-variables", f"BR2_PACKAGE_VEXO_PLATFORM={device}"],
            input=stand_in, text=True, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout
        require("warning" not in made, made)
        require(f"-DVEXO_PLATFORM={platform}" in made, "wrong platform:\n" + made)
        site = re.search("^SITE = (.*)$", made, re.M).group(1)
        require(os.path.isfile(site + "/CMakeLists.txt"), f"{site} is not the tree")


def check_recipe():
    recipe = read("yocto/recipes-*/*/*.bb")
    for expression in re.findall(r"\$\{@(.*)\}", recipe):
        compile(expression, "an expression of the recipe", "eval")
    function = re.compile(r"^def .*\n(?:[ \t]+.*\n)+", re.M)
    for text in function.findall(recipe):
        compile(text, "a function of the recipe", "exec")
    statement = re.compile(r'(#.*|inherit [a-z ]+|[\w:${}\[\]-]+ (=|\?\?=|\+=|=\+) "[^"]*"|)')
    for line in function.sub("", recipe).splitlines():
        require(statement.fullmatch(line), "not a line of a recipe: " + line)
    depends = re.search('^RDEPENDS.*"(.*)"$', recipe, re.M).group(1).split()
    for library in re.findall(r'LateLibrary\("(lib\w+)', read("../vexo_utils/src/**/*.cpp")):
        require(library in depends, f"the recipe lacks {library}, which the library loads")


def check_options():
    known = re.findall(r"(?:option|set)\((\w+)", read("../CMakeLists.txt"))
    for name in re.findall(r"-D(VEXO_\w+)=", read("buildroot/**/*.mk") + read("yocto/**/*.bb") + read("debian/rules")):
        require(name in known, f"CMakeLists.txt has no option {name}")


check_kconfig()
check_make()
check_recipe()
check_options()
print("the files for Buildroot and Yocto can be read and fit the tree")
