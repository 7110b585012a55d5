"""Finds the places of C++ sources where a fault can be planted, in clang's syntax tree."""

import ctypes
import dataclasses
import pathlib
import re
import shlex

import clang.cindex
from clang.cindex import CursorKind, TypeKind

from . import texts


@dataclasses.dataclass(frozen=True)
class Mutant:
    """One fault. The file's bytes from begin to end are what it changes."""

    file: str
    begin: int
    end: int
    line: int
    function: str
    kind: str       # what a report calls it
    form: str       # how the schema is written, see schemata.py
    fault: str      # the expression that replaces the original one; empty for statements and conditions
    shown: str      # original and changed text, for reports and for the table of equivalents
    constant: bool  # inside a constexpr function

    def key(self):
        """Names the mutant as long as its function and its text stay as they are."""
        return f"{self.file} | {self.function} | {self.kind} | {self.shown}"


FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR,
             CursorKind.CONVERSION_FUNCTION, CursorKind.FUNCTION_TEMPLATE}
# Their expressions are constants or are not evaluated.
LEFT_OUT = {CursorKind.STATIC_ASSERT, CursorKind.ENUM_DECL, CursorKind.CXX_UNARY_EXPR, CursorKind.CXX_TYPEID_EXPR,
            CursorKind.TYPE_ALIAS_DECL, CursorKind.TYPEDEF_DECL, CursorKind.TEMPLATE_NON_TYPE_PARAMETER,
            CursorKind.TEMPLATE_TYPE_PARAMETER, CursorKind.DECL_REF_EXPR}
DECLARED = {CursorKind.VAR_DECL, CursorKind.FIELD_DECL, CursorKind.PARM_DECL}
JUMPS = {CursorKind.RETURN_STMT, CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT}
INTEGERS = {TypeKind.CHAR_U, TypeKind.UCHAR, TypeKind.CHAR16, TypeKind.CHAR32, TypeKind.USHORT, TypeKind.UINT,
            TypeKind.ULONG, TypeKind.ULONGLONG, TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.WCHAR, TypeKind.SHORT,
            TypeKind.INT, TypeKind.LONG, TypeKind.LONGLONG}
# A shorter text is shown with its line.
SHORT = 24
LINE_END = b"\n"
RESULTS = INTEGERS | {TypeKind.BOOL, TypeKind.FLOAT, TypeKind.DOUBLE, TypeKind.POINTER, TypeKind.ENUM, TypeKind.RECORD}


def compile_arguments(command):
    """What clang needs to know of a compile command."""
    arguments = shlex.split(command)
    taken = []
    for number, argument in enumerate(arguments):
        if argument in ("-I", "-isystem", "-D", "-U"):
            taken += [argument, arguments[number + 1]]
        elif argument.startswith(("-I", "-isystem", "-D", "-U", "-std=")):
            taken.append(argument)
    return taken


def find_mutants(source, arguments, root, wanted):
    """All mutants of the wanted files (relative to the root) that the source includes, and the files that it saw."""
    unit = clang.cindex.Index.create().parse(str(source), args=arguments)
    errors = [str(problem) for problem in unit.diagnostics if problem.severity >= clang.cindex.Diagnostic.Error]
    if errors:
        raise RuntimeError(f"clang cannot parse {source}: {errors[0]}")
    finder = _Finder(root, wanted)
    for cursor in unit.cursor.get_children():
        finder.top(cursor)
    return finder.mutants, finder.seen


def spelled_at(location):
    """The offset where the text of a location is written, which differs from its offset in a macro's expansion."""
    file = ctypes.c_void_p()
    line, column, offset = ctypes.c_uint(), ctypes.c_uint(), ctypes.c_uint()
    clang.cindex.conf.lib.clang_getSpellingLocation(location, ctypes.byref(file), ctypes.byref(line),
                                                    ctypes.byref(column), ctypes.byref(offset))
    return offset.value


@dataclasses.dataclass(frozen=True)
class _Context:
    function: str = ""
    constant: bool = False
    last: int = -1          # where the function's last statement begins, if that is a return
    returns_nothing: bool = True
    switch: int = -1        # where the block of the innermost switch begins


class _Finder:
    """Walks through one translation unit."""

    def __init__(self, root, wanted):
        self.root = root
        self.wanted = wanted
        self.paths = {}
        self.sources = {}
        self.seen = set()
        self.mutants = []
        self.file = ""
        self.text = b""

    def top(self, cursor):
        file = cursor.location.file
        if file is None:
            return
        name = file.name
        if name not in self.paths:
            path = pathlib.Path(name).resolve()
            relative = str(path.relative_to(self.root)) if path.is_relative_to(self.root) else None
            self.paths[name] = relative if relative in self.wanted else None
            if self.paths[name]:
                self.sources[relative] = path.read_bytes()
        if self.paths[name] is None:
            return
        self.file = self.paths[name]
        self.text = self.sources[self.file]
        self.seen.add(self.file)
        self.visit(cursor, _Context(), None)

    # ---- Walking ----

    def visit(self, cursor, context, parent):
        kind = cursor.kind
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        if kind == CursorKind.DECL_REF_EXPR:
            self.named_constant(cursor, begin, end, context)
            return
        if kind in LEFT_OUT or kind.is_attribute():
            return
        children = list(cursor.get_children())
        if kind in FUNCTIONS:
            context = self.function_context(cursor, children, begin)
        elif kind == CursorKind.LAMBDA_EXPR:
            context = dataclasses.replace(context, last=self.last_return(children), returns_nothing=False)
        elif kind in DECLARED:
            head = self.text[begin:cursor.location.offset]
            if re.search(rb"\b(constexpr|constinit)\b", head):
                return
            # The others are the array's size and template arguments.
            children = [child for child in children if child.extent.start.offset > cursor.location.offset
                        and self.before(child.extent.start.offset) != b"["]
        elif kind == CursorKind.SWITCH_STMT:
            context = dataclasses.replace(context, switch=children[-1].extent.start.offset)
        elif kind == CursorKind.CASE_STMT:
            children = children[1:]
        elif kind == CursorKind.MEMBER_REF_EXPR:
            children = [child for child in children if child.extent.start.offset == begin]
        elif kind == CursorKind.IF_STMT and re.match(rb"if\s+constexpr\b", self.text[begin:begin + 40]):
            children = children[1:]
        if self.is_plain(cursor):
            self.mutants_of(cursor, children, begin, end, context, parent)
        for child in children:
            self.visit(child, context, cursor)

    def function_context(self, cursor, children, begin):
        names = [cursor.spelling]
        above = cursor.semantic_parent
        while above is not None and above.kind in (CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL,
                                                   CursorKind.CLASS_TEMPLATE):
            names.insert(0, above.spelling)
            above = above.semantic_parent
        return _Context(function="::".join(names),
                        constant=b"constexpr" in self.text[begin:cursor.location.offset],
                        last=self.last_return(children),
                        returns_nothing=cursor.result_type.kind in (TypeKind.VOID, TypeKind.INVALID))

    @staticmethod
    def last_return(children):
        for child in children:
            if child.kind == CursorKind.COMPOUND_STMT:
                statements = list(child.get_children())
                if statements and statements[-1].kind == CursorKind.RETURN_STMT:
                    return statements[-1].extent.start.offset
        return -1

    def is_plain(self, cursor):
        """Whether it neither begins nor ends inside a macro."""
        start, end = cursor.extent.start, cursor.extent.end
        return (start.file is not None and spelled_at(start) == start.offset and spelled_at(end) == end.offset)

    # ---- Text around a node ----

    def before(self, offset):
        return self.text[max(0, offset - 400):offset].rstrip()[-1:]

    def after(self, offset):
        return self.text[offset:offset + 400].lstrip()[:1]

    def add(self, begin, end, context, kind, form, fault, shown):
        line = self.text.count(b"\n", 0, begin) + 1
        self.mutants.append(Mutant(self.file, begin, end, line, context.function, kind, form, fault, shown,
                                   context.constant))

    def replace(self, begin, end, context, kind, fault, shown=None):
        original = self.text[begin:end].decode()
        shown = texts.change(original, shown or fault)
        if len(original) <= SHORT:
            shown += f" in {self.line_at(begin)}"
        self.add(begin, end, context, kind, "expression", fault, shown)

    def line_at(self, offset):
        return texts.shorten(self.text[self.text.rfind(b"\n", 0, offset) + 1:].split(b"\n", 1)[0].decode())

    # ---- The kinds of mutants ----

    def mutants_of(self, cursor, children, begin, end, context, parent):
        kind = cursor.kind
        if parent is not None and parent.kind in (CursorKind.COMPOUND_STMT, CursorKind.CASE_STMT,
                                                  CursorKind.DEFAULT_STMT):
            self.statement(cursor, begin, end, context, parent)
        if kind in (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.FOR_STMT, CursorKind.DO_STMT,
                    CursorKind.CONDITIONAL_OPERATOR):
            self.condition(kind, children, begin, context)
        elif kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
            self.operator(cursor, children, begin, end, context)
        elif kind == CursorKind.UNARY_OPERATOR and len(children) == 1:
            self.unary(children[0], begin, end, context)
        elif kind == CursorKind.CALL_EXPR:
            self.call(cursor, begin, end, context)
        elif kind.is_expression():
            original = self.text[begin:end].decode()
            if not re.match(r"\w", self.text[end:end + 1].decode(errors="replace")):  # not the number of "5s"
                for fault, shown in texts.other_literals(kind.name, original):
                    self.replace(begin, end, context, "constant changed", fault, shown)

    def statement(self, cursor, begin, end, context, parent):
        if not cursor.kind.is_expression() and cursor.kind not in JUMPS:
            return
        text = self.text[begin:end].decode()
        if not text or re.match(r"\(void\)|static_cast<void>", text):
            return
        if cursor.kind == CursorKind.RETURN_STMT and (
                begin == context.last or (context.last < 0 and not context.returns_nothing)):
            return
        gap = re.match(rb"\s*;", self.text[end:end + 200])
        if not gap:
            return
        ends_switch = parent.kind != CursorKind.COMPOUND_STMT or parent.extent.start.offset == context.switch
        if cursor.kind == CursorKind.BREAK_STMT and ends_switch and self.after(end + gap.end()) == b"}":
            return
        is_call = (cursor.kind in (CursorKind.CALL_EXPR, CursorKind.UNEXPOSED_EXPR) and text.endswith(")")
                   and not text.startswith(("throw ", "delete ")))
        shown = texts.shorten(text)
        if len(text) <= SHORT:
            shown += f" after {self.line_at(len(self.text[:self.text.rfind(LINE_END, 0, begin)].rstrip()))}"
        self.add(begin, end + gap.end(), context, "call dropped" if is_call else "statement deleted", "statement", "",
                 shown)

    def condition(self, kind, children, begin, context):
        if children and children[0].kind == CursorKind.VAR_DECL:
            return
        if kind == CursorKind.CONDITIONAL_OPERATOR:
            found = children[:1]
        elif kind == CursorKind.FOR_STMT:
            found = [child for child in children if self.after(child.extent.end.offset) == b";"
                     and self.before(child.extent.start.offset) == b";"][:1]
        else:
            found = [child for child in children if self.after(child.extent.end.offset) == b")"
                     and child.kind.is_expression()][:1]
        for child in found:
            if not self.is_plain(child) or child.kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
                continue
            span = child.extent.start.offset, child.extent.end.offset
            if span[0] < begin:
                continue
            text = self.text[slice(*span)].decode()
            loop = kind in (CursorKind.WHILE_STMT, CursorKind.FOR_STMT, CursorKind.DO_STMT)
            if not loop:  # loops would hardly end
                self.add(*span, context, "condition negated", "negated", "", texts.change(text, "negated"))
                self.add(*span, context, "condition forced", "true", "", texts.change(text, "true"))
            self.add(*span, context, "condition forced", "false", "", texts.change(text, "false"))

    def operator(self, cursor, operands, begin, end, context):
        left, right = operands[0].extent.end.offset, operands[1].extent.start.offset
        if not begin < left < right < end:
            return
        operator = self.text[left:right].decode().strip()
        if operator in ("<<", ">>") and cursor.kind == CursorKind.CALL_EXPR:
            return
        if operator in texts.OTHER_OPERATORS:
            other = texts.OTHER_OPERATORS[operator]
            text = self.text
            fault = text[begin:left].decode() + f" {other} " + text[right:end].decode()
            self.replace(begin, end, context, "operator swapped", fault)

    def unary(self, operand, begin, end, context):
        text = self.text[begin:end].decode()
        inner = self.text[operand.extent.start.offset:operand.extent.end.offset].decode()
        if text.startswith(("++", "--")):
            other = "--" if text[0] == "+" else "++"
            self.replace(begin, end, context, "operator swapped", other + text[2:])
        elif text.endswith(("++", "--")):
            other = "--" if text[-1] == "+" else "++"
            self.replace(begin, end, context, "operator swapped", text[:-2] + other)
        elif text.startswith("!"):
            self.replace(begin, end, context, "operator swapped", f"static_cast<bool>({inner})", inner)
        elif text.startswith(("-", "~")) and self.is_plain(operand):
            self.replace(begin, end, context, "operator swapped", inner)

    def call(self, cursor, begin, end, context):
        called = cursor.referenced
        if called is None:
            return
        text = self.text[begin:end].decode()
        if cursor.spelling.startswith("operator"):
            operands = list(cursor.get_arguments())
            # Texts have no other operator that compiles.
            is_text = "basic_string" in cursor.type.get_canonical().spelling
            if len(operands) == 2 and all(operands) and not is_text:
                self.operator(cursor, operands, begin, end, context)
            return
        if called.kind not in (CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD) or not text.endswith(")"):
            return
        if self.before(begin) in (b"{", b"}", b";") and self.after(end) == b";":
            return  # a statement
        result = called.result_type.get_canonical()
        if result.kind in RESULTS and not result.is_const_qualified():
            self.replace(begin, end, context, "call dropped", f"decltype({text}){{}}", "its type's zero")

    def named_constant(self, cursor, begin, end, context):
        constant = cursor.referenced
        if (constant is None or constant.kind != CursorKind.VAR_DECL or not self.is_plain(cursor)
                or not context.function):
            return
        kind = constant.type.get_canonical()
        if not kind.is_const_qualified() or kind.kind not in INTEGERS | {TypeKind.BOOL}:
            return
        text = self.text[begin:end].decode()
        if not re.fullmatch(r"(\w+::)*k[A-Z]\w*", text):
            return
        if kind.kind == TypeKind.BOOL:
            self.replace(begin, end, context, "constant changed", f"!{text}")
        else:
            self.replace(begin, end, context, "constant changed", f"static_cast<decltype({text})>({text} + 1)",
                         f"{text} + 1")
