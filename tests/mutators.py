#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Lists the mutators of the library as its headers declare them, and finds those that lack a const overload.

    tests/mutators.py --output FILE -- COMPILER FLAG... < SOURCE
    tests/mutators.py --check-itself COMPILER

SOURCE includes the headers, and COMPILER preprocesses it: so the mutators that VEL_ macros declare are listed like
those that are written by hand. A mutator is a public function that is named as one (fooIs, fooDel, newFoo, ...), of
a class that is counted. It needs a const overload with the same parameters, in its class or by a using-declaration,
which does nothing but throwConstInstance().

FILE is a C++ header for pim/joinprune/Examples.h: for each entity type a function that calls each const
overload, and what it declares of its attributes; the list of these types, and the list of the mutators without
a const overload.
"""
import argparse
import collections
import re
import subprocess
import sys

MUTATOR = re.compile(r'\w+(Is|Are|Del|DelAll|Inc|Dec|Notify|NotifyImmediate)|new[A-Z]\w*|velDoZombieReactors')
# Counting works on const instances too; handlers and steps react, whatever they are named after.
NO_MUTATOR = re.compile(r'newRef|handle[A-Z]\w*|do[A-Z]\w*')
TOKEN = re.compile(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'|\w+|::|->|[^\s\w]')
CLOSING = {'(': ')', '{': '}', '[': ']'}

Function = collections.namedtuple('Function', 'name parameters is_const throws')


class Class:
    def __init__(self, namespace, outer, name, bases, template_parameters):
        self.namespace, self.outer, self.name = namespace, outer, name
        self.bases, self.template_parameters = bases, template_parameters
        self.functions, self.usings, self.nested = [], set(), set()
        self.attributes = []  # of `enum Attribute`
        self.callbacks = []   # of a NotifieeConst: onFoo() and the like
        self.public = set()   # names of public functions

    @property
    def path(self):
        return (self.outer.path if self.outer else []) + [self.name]

    @property
    def is_template(self):
        return bool(self.template_parameters) or (self.outer is not None and self.outer.is_template)

    def __str__(self):
        return '::'.join(self.path)


def preprocessed(compiler, source):
    """The tokens of what the preprocessor makes of the library's own headers."""
    text = subprocess.run([*compiler, '-E', '-x', 'c++', '-'], input=source, text=True, check=True,
                          stdout=subprocess.PIPE).stdout
    kept, own = [], False
    for line in text.splitlines():
        marker = re.match(r'# \d+ "(.*?)"', line)
        if marker:
            own = re.search(r'(^|/)(runtime|pim)/.*\.h$|^<stdin>$', marker.group(1)) is not None
        elif own:
            kept.append(line)
    text = '\n'.join(kept)
    return without_attributes(TOKEN.findall(text))


def after(tokens, at):
    """Behind the bracket that closes the one at a position."""
    depth = 0
    while True:
        if tokens[at] in CLOSING:
            depth += 1
        elif tokens[at] in CLOSING.values():
            depth -= 1
        at += 1
        if depth == 0:
            return at


def without_attributes(tokens):
    kept, at = [], 0
    while at < len(tokens):
        if tokens[at] in ('__attribute__', 'alignas'):
            at = after(tokens, at + 1)
        elif tokens[at:at + 2] == ['[', '['] and (not kept or kept[-1] not in ('=', '(', ',')):
            at = after(tokens, at)
        else:
            kept.append(tokens[at])
            at += 1
    return kept


def angled(tokens, at):
    """Behind the > that closes the < at a position."""
    depth = 0
    while True:
        depth += {'<': 1, '>': -1}.get(tokens[at], 0)
        at += 1
        if depth == 0:
            return at


def split(tokens):
    """The text between commas outside of brackets."""
    parts, depth = [[]], 0
    for token in tokens:
        depth += (token in '<([{') - (token in '>)]}') if len(token) == 1 else 0
        if token == ',' and depth == 0:
            parts.append([])
        else:
            parts[-1].append(token)
    return [part for part in parts if part]


def parameter_type(tokens):
    tokens = tokens[:tokens.index('=')] if '=' in tokens else tokens
    named = (len(tokens) > 1 and re.match(r'\w', tokens[-1]) and tokens[-1] != 'const' and
             tokens[-2] not in ('::', 'unsigned', 'const' if len(tokens) == 2 else '::'))
    return tuple(tokens[:-1] if named else tokens)


def parse(tokens):
    """All classes, in the order of their declaration."""
    classes = []

    def template_head(head):
        parameters = []
        while head and head[0] == 'template':
            end = angled(head, 1)
            parameters += [part[-1] for part in split(head[2:end - 1])]
            head = head[end:]
        if head and head[0] == 'requires' and 'class' in head:
            head = head[head.index('class'):]
        return parameters, head

    def member(owner, head, body):
        _, head = template_head(head)
        if not head or head[0] in ('friend', 'static', 'typedef', 'static_assert'):
            return
        if head[0] == 'using':
            owner.nested.add(head[1]) if '=' in head else owner.usings.add(head[-1])
            return
        if '(' not in head:
            return
        at = head.index('(')
        name = head[at - 1]
        owner.public.add(name)
        if owner.name == 'NotifieeConst' and re.match('on[A-Z]', name):
            owner.callbacks.append(f'{name}({"key" if head[at + 1] != ")" else ""})')
        if not MUTATOR.fullmatch(name) or NO_MUTATOR.fullmatch(name) or at < 2:
            return
        end = after(head, at)
        trailing = head[end:]
        if 'delete' in trailing:
            return
        parameters = tuple(parameter_type(part) for part in split(head[at + 1:end - 1]))
        owner.functions.append(Function(name, parameters, 'const' in trailing, 'throwConstInstance' in body))

    def scope(at, namespace, owner):
        access = owner is None or owner.default_access
        head = []
        while at < len(tokens) and tokens[at] != '}':
            token = tokens[at]
            if owner and token in ('public', 'protected', 'private') and tokens[at + 1] == ':':
                access, head, at = token == 'public', [], at + 2
            elif token == ';':
                if owner and access:
                    member(owner, head, [])
                head, at = [], at + 1
            elif token == '(':
                end = after(tokens, at)
                head += tokens[at:end]
                at = end
            elif token == '{':
                parameters, bare = template_head(head)
                if bare[:1] == ['namespace'] or bare[:2] == ['inline', 'namespace']:
                    names = [t for t in bare[1:] if t not in ('::', 'namespace')]
                    at = scope(at + 1, namespace + names, None)
                elif bare[:1] == ['extern']:
                    at = scope(at + 1, namespace, None)
                elif bare[:1] in (['class'], ['struct']) and '(' not in bare and '=' not in bare:
                    at = class_scope(at, namespace, owner, parameters, bare, access)
                else:
                    end = after(tokens, at)
                    if bare[:1] == ['enum'] and owner and len(bare) > 1:
                        owner.nested.add(bare[2] if bare[1] == 'class' and len(bare) > 2 else bare[1])
                        if bare[1] == 'Attribute':
                            numbers = split(tokens[at + 1:end - 1])
                            owner.attributes = [number[0].removesuffix('Id') for number in numbers]
                    # A brace that ends a declaration is a body; any other is an initializer.
                    if owner and access and '(' in head:
                        member(owner, head, tokens[at:end])
                    at, head = end, []
                    continue
                head = []
            else:
                head.append(token)
                at += 1
        return at + 1

    def class_scope(at, namespace, owner, parameters, bare, access):
        bases = []
        colon = next((i for i, t in enumerate(bare) if t == ':'), len(bare))
        named = [t for t in bare[1:colon] if t != 'final']
        name = named[0] if named else ''
        for part in split(bare[colon + 1:]):
            if 'private' not in part:
                bases.append([t for t in part if t not in ('public', 'virtual')])
        if owner:
            owner.nested.add(name)
        made = Class(namespace, owner, name, bases, parameters)
        made.default_access = bare[0] == 'struct'
        made.is_public = access
        if name and '<' not in named:  # a specialisation has its own name
            classes.append(made)
        return scope(at + 1, namespace, made)

    scope(0, [], None)
    return classes


class Library:
    def __init__(self, classes):
        self.classes = classes
        self.by_name = collections.defaultdict(list)
        for c in classes:
            self.by_name[c.name].append(c)

    def bases(self, c):
        """The records of a class's bases; None for one that is a template's parameter."""
        found = []
        for base in c.bases:
            path = [t for t in (base[:base.index('<')] if '<' in base else base) if t != '::']
            if path[-1] in c.template_parameters:
                found.append(None)
                continue
            named = [b for b in self.by_name[path[-1]]
                     if b is not c and (b.namespace + b.path)[-len(path):] == path]
            # Of several, the one that is nearest: in the same class or in the same namespace.
            own = c.namespace + c.path
            named.sort(key=lambda b: -len([1 for x, y in zip(own, b.namespace + b.path) if x == y]))
            found += named[:1]
        return found

    def derives(self, c, name, unknown=True):
        """`unknown`: whether what derives from a template's parameter counts."""
        if c is None:
            return unknown
        return c.name == name or any(self.derives(b, name, unknown) for b in self.bases(c))

    def has_refusal(self, c, f, used=False):
        """`used`: by a class that derives from this one, where a template's parameters have other names."""
        for g in c.functions:
            same = g.parameters == f.parameters
            alike = used and c.is_template and len(g.parameters) == len(f.parameters)
            if g.is_const and g.throws and g.name == f.name and (same or alike):
                return True
        if used and f.name not in {g.name for g in c.functions} or f.name in c.usings:
            return any(b is None or self.has_refusal(b, f, used=True) for b in self.bases(c))
        return False

    def counted(self):
        return [c for c in self.classes if self.derives(c, 'Counted')]

    def lacking(self):
        return [f'{c}::{f.name}({", ".join(map(spelled, f.parameters))})' for c in self.counted()
                for f in c.functions if not f.is_const and not self.has_refusal(c, f)]

    def entities(self):
        return [c for c in self.classes
                if self.derives(c, 'Entity', unknown=False) and not c.is_template and c.outer is None]

    def callbacks(self, c):
        """Of the class's own reactors."""
        return [name for b in self.classes if b.outer is c and b.name == 'NotifieeConst' for name in b.callbacks]

    def visible(self, c):
        """Names of types that only the class, or what it derives from, knows."""
        return c.nested.union(*(self.visible(b) for b in self.bases(c) if b))

    def refusals(self, c):
        """What throws, the bases' included as far as the class does not hide it."""
        own = [f for f in c.functions if f.is_const and f.throws]
        hidden = {f.name for f in c.functions} - c.usings
        seen = {(f.name, f.parameters) for f in own}
        for b in self.bases(c):
            own += [f for f in (self.refusals(b) if b else [])
                    if f.name not in hidden and (f.name, f.parameters) not in seen]
        return own


def spelled(tokens):
    text = re.sub(r' ?(::|<|>|\*|&) ?', r'\1', ' '.join(tokens))
    return text.replace(' ,', ', ').replace(',  ', ', ').replace('>const', '> const')


def qualified(tokens, c, names):
    return [f'{c}::{t}' if t in names and tokens[max(i - 1, 0)] != '::' else t for i, t in enumerate(tokens)]


def header(library):
    yield '// Made by tests/mutators.py from the headers.'
    yield '#pragma once'
    entities = library.entities()
    for c in entities:
        names = library.visible(c)
        yield f'namespace {"::".join(c.namespace)} {{'
        yield f'inline void mutate({c} const& object, ::Mutation const& mutation) {{'
        yield '  (void)object; (void)mutation;'
        for f in library.refusals(c):
            arguments = ', '.join(f'::any<{spelled(qualified(p, c, names))}>()' for p in f.parameters)
            name = f'{f.name}({", ".join(map(spelled, f.parameters))})'
            yield f'  mutation("{name}", [&] {{ object.{f.name}({arguments}); }});'
        yield '}'
        numbers = ', '.join(f'{{"{a}", {c}::{a}Id}}' for a in c.attributes)
        callbacks, public = (', '.join(f'"{name}"' for name in names)
                             for names in (library.callbacks(c), sorted(c.public)))
        bases = [b for b in library.bases(c) if b and library.derives(b, 'Entity')]
        base = '{}'
        if bases:
            base = '::'.join(['', *bases[0].namespace, *bases[0].path])
            base = f'declared(static_cast<{base} const*>(nullptr))'
        yield f'inline ::Declared declared({c} const*) {{'
        yield f'  return ::Declared({{{{{numbers}}}, {{{callbacks}}}, {{{public}}}}}, '
        yield f'                    {base});'
        yield '}'
        yield '}'
    yield '#define ENTITY_TYPES(X) ' + ' '.join(f'X({"::".join(c.namespace + c.path)})' for c in entities)
    lacking = ', '.join(f'"{text}"' for text in library.lacking())
    yield f'inline std::vector<std::string> const lacking{{{lacking}}};'


SAMPLE = '''
#define IT_IS(foo) void foo##Is(int); void foo##Is(int) const { throwConstInstance(); }
namespace Vel {
class Counted { public: void newRef() const; };
class Entity : public Counted {
 public:
  virtual void nameIs(std::string_view name) = 0;
  void nameIs(std::string_view) const { throwConstInstance(); }
};
template <class T>
class Owned : public T {
 public:
  void ownerDel() { owner_ = nullptr; }
};
class Good final : public Entity {
  void privateIs(int);
 public:
  using Key = int;
  static void staticIs(int);
  IT_IS(foo)
  int fooCount() const { return 0; }
  Key newBar(Key const& key, int how = 1);
  Key newBar(Key const&, int) const { throwConstInstance(); }
  void nameIs(std::string_view name) override;
  using Entity::nameIs;
};
class Bad final : public Entity {
 public:
  void nameIs(std::string_view name) override;
  void fooDel(Key const& key);
  void fooDel(Iterator const& i) { return fooDel(i.key()); }
  void fooDel(Key const&) const { throwConstInstance(); }
  void barInc(int n);
  void barInc(int) const { n_ = 1; }
};
class Sampled final : public Entity {
 public:
  enum Attribute : AttributeId { fooId = firstAttributeId, barId };
  class NotifieeConst : public ReactorOn<Sampled> {
   public:
    virtual void onFoo() { handleNotification(fooId); }
    virtual void onBar(Key) {}
    virtual void onBarvelImmediate() {}
    virtual void onBar() { handleDefault("bar"); }
  };
};
struct Value { void valueIs(int); };
}
'''
ATTRIBUTES = {'Sampled': (['foo', 'bar'], ['onFoo()', 'onBar(key)', 'onBarvelImmediate()', 'onBar()'])}
LACKING = ['Owned::ownerDel()', 'Bad::nameIs(std::string_view)', 'Bad::fooDel(Iterator const&)',
           'Bad::barInc(int)']


def check_itself(compiler):
    library = Library(parse(preprocessed([compiler], SAMPLE)))
    assert library.lacking() == LACKING, library.lacking()
    made = '\n'.join(header(library))
    for call in ('object.fooIs(::any<int>())', 'object.newBar(::any<Good::Key const&>(), ::any<int>())',
                 'object.nameIs(::any<std::string_view>())'):
        assert call in made, made
    for c in library.entities():
        if c.name in ATTRIBUTES:
            found = (c.attributes, library.callbacks(c))
            assert found == ATTRIBUTES[c.name], found
    assert 'declared(static_cast<::Vel::Entity const*>(nullptr))' in made, made


def main():
    arguments = argparse.ArgumentParser(description=__doc__,
                                        formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument('--output')
    arguments.add_argument('--check-itself', action='store_true')
    arguments.add_argument('compiler', nargs='+')
    options = arguments.parse_args()
    if options.check_itself:
        return check_itself(options.compiler[0])
    library = Library(parse(preprocessed(options.compiler, sys.stdin.read())))
    with open(options.output, 'w', encoding='utf-8') as out:
        out.write('\n'.join(header(library)) + '\n')


main()
