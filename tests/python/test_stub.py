"""python/kelo.pyi against the module it describes: the same names, kinds and parameter names."""

import ast
import inspect
import pathlib

import pytest

import kelo

STUB = pathlib.Path(__file__).resolve().parents[2] / "python" / "kelo.pyi"
TREE = ast.parse(STUB.read_text(), str(STUB))
CLASSES = {node.name: node for node in TREE.body if isinstance(node, ast.ClassDef)}
KEPT_DUNDERS = {"__init__", "__enter__", "__exit__"}


def kind_in_stub(node):
    """'method', 'property' (read-only), 'attribute' (settable property) or 'classvar'."""
    if isinstance(node, ast.FunctionDef):
        decorated = any(isinstance(d, ast.Name) and d.id == "property" for d in node.decorator_list)
        return "property" if decorated else "method"
    return "classvar" if "ClassVar" in ast.unparse(node.annotation) else "attribute"


def stub_members(name):
    """A stub class's members, its stub base classes' included: {name: node}."""
    members = {}
    for base in CLASSES[name].bases:
        if isinstance(base, ast.Name) and base.id in CLASSES:
            members.update(stub_members(base.id))
    for node in CLASSES[name].body:
        target = getattr(node, "target", node)
        members[getattr(target, "name", getattr(target, "id", None))] = node
    return members


def kind_in_module(cls, name):
    attr = inspect.getattr_static(cls, name)
    if isinstance(attr, property):
        return "attribute" if attr.fset else "property"
    return "classvar" if isinstance(attr, cls) else "method"


def doc_parameters(function):
    """Parameter names from pybind11's signature line, e.g. 'f(self: kelo.World, id: int = 0)'."""
    doc = function.__doc__ or ""
    first = doc.split("\n", 1)[0]
    if not first.startswith(function.__name__ + "(") or "Overloaded function" in doc:
        return None
    names, depth, part = [], 0, ""
    for char in first[len(function.__name__) + 1:first.rindex(") ->")] + ",":
        depth += (char in "([{<") - (char in ")]}>")
        if char == "," and depth == 0:
            names.append(part.split(":")[0].split("=")[0].strip())
            part = ""
        else:
            part += char
    return [name for name in names if name]


def stub_parameters(node):
    args = node.args
    names = [a.arg for a in args.posonlyargs + args.args]
    names += ["*" + args.vararg.arg] if args.vararg else []
    names += [a.arg for a in args.kwonlyargs]
    return names + (["**" + args.kwarg.arg] if args.kwarg else [])


def test_module_names_match():
    declared = {getattr(n, "name", None) or getattr(getattr(n, "target", None), "id", None)
                for n in TREE.body}
    public = {n for n in dir(kelo) if not n.startswith("_")} | {"__version__"}
    assert sorted(public - declared) == []
    assert sorted(n for n in declared if n and not n.startswith("_") and not hasattr(kelo, n)) == []
    for node in TREE.body:
        if isinstance(node, ast.FunctionDef):
            assert stub_parameters(node) == doc_parameters(getattr(kelo, node.name)), node.name


@pytest.mark.parametrize("name", ["State", "World", "Source", "Emitter", "Backend", "Server"])
def test_class_matches(name):
    cls, members = getattr(kelo, name), stub_members(name)
    public = {m for m in dir(cls) if not m.startswith("_") or m in KEPT_DUNDERS}
    if not (cls.__init__.__doc__ or "").startswith("__init__("):
        public.discard("__init__")  # no constructor: made by a world only
    assert sorted(public - members.keys()) == []
    assert sorted(m for m in members if not hasattr(cls, m)) == []
    for member, node in members.items():
        if not member.startswith("__"):
            assert kind_in_stub(node) == kind_in_module(cls, member), f"{name}.{member}"
        parameters = isinstance(node, ast.FunctionDef) and kind_in_stub(node) == "method"
        if parameters and doc_parameters(getattr(cls, member)) is not None:
            assert stub_parameters(node) == doc_parameters(getattr(cls, member)), f"{name}.{member}"


def test_stub_beside_module_is_this_one():
    beside = pathlib.Path(kelo.__file__).with_name("kelo.pyi")
    assert beside.read_text() == STUB.read_text(), f"{beside} is stale: rebuild"
