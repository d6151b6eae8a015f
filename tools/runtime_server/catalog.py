"""Catalog of software components and files, served in increments.

Each entry carries the server time (milliseconds) at which it changed; an
agent gets the entries newer than the last update time it sends. A generated
catalog of N synthetic files is produced lazily and streamed in chunks.
"""

import itertools

CHUNK_LINES = 8192


class CatalogError(ValueError):
    pass


class Catalog:
    def __init__(self, components, files, update_time, generated=None):
        self.components = components   # [(time, id, a1, a2, a3)]
        self.files = files             # [(time, name, size, a1, a2, [ids])]
        self.update_time = update_time
        self.generated = generated     # None or (file_count, component_count)

    @classmethod
    def from_config(cls, value):
        base_time = int(value.get("update_time", 1000000))
        components = [_component(c, base_time) for c in value.get("components", [])]
        files = [_file(f, base_time) for f in value.get("files", [])]
        generated = None
        gen = value.get("generate")
        if gen:
            generated = (int(gen.get("files", 0)), max(1, int(gen.get("components", 1))))
        times = [c[0] for c in components] + [f[0] for f in files]
        update_time = max([base_time] + times)
        if update_time == 0:
            raise CatalogError("catalog update_time must not be 0")
        return cls(components, files, update_time, generated)

    def increment(self, since):
        """The payload for an agent whose last update time is `since`:
        (byte length, factory of an iterator of byte chunks, number of
        components, number of files). An agent whose time lies after this
        catalog's own comes from elsewhere and gets the whole catalog."""
        if since > self.update_time:
            since = 0
        comps = [c for c in self.components if c[0] > since]
        files = [f for f in self.files if f[0] > since]
        gen = self.generated if self.generated and self.update_time > since else None

        def chunks():
            yield b"%d\r\n<components>\r\n" % self.update_time
            yield from _batched(component_line(*c[1:]) for c in comps)
            if gen:
                yield from _batched(component_line(i, 0, 0, 0) for i in range(1, gen[1] + 1))
            yield b"</components>\r\n<files>\r\n"
            yield from _batched(file_line(*f[1:]) for f in files)
            if gen:
                yield from _generated_files(*gen)
            yield b"</files>\r\n"

        length = sum(len(c) for c in chunks())
        n_comps = len(comps) + (gen[1] if gen else 0)
        n_files = len(files) + (gen[0] if gen else 0)
        return length, chunks, n_comps, n_files


def component_line(cid, a1, a2, a3):
    return "%d|%d|%d|%d\r\n" % (cid, a1, a2, a3)


def file_line(name, size, a1, a2, ids):
    # Every component id is followed by "|"; the text after the last "|" is
    # left empty, as agents do not read it.
    return "%s|%d|%d|%d|%s\r\n" % (name, size, a1, a2, "".join("%d|" % i for i in ids))


def _generated_files(count, n_components):
    # Names and sizes are unique so that no two synthetic files are the same
    # catalog file; the component id cycles through the generated components.
    for start in range(0, count, CHUNK_LINES):
        stop = min(count, start + CHUNK_LINES)
        yield "".join([
            "gen%07d.bin|%d|0|0|%d|\r\n" % (i, 1000 + i, i % n_components + 1)
            for i in range(start, stop)]).encode()


def _batched(lines):
    it = iter(lines)
    while True:
        batch = list(itertools.islice(it, CHUNK_LINES))
        if not batch:
            return
        yield "".join(batch).encode("utf-8")


def _component(c, base_time):
    if isinstance(c, list):
        c = {"id": c[0], "attrs": c[1:4]}
    attrs = list(c.get("attrs", [0, 0, 0]))
    if len(attrs) != 3:
        raise CatalogError("a component has three attributes: %r" % (c,))
    return (int(c.get("time", base_time)), int(c["id"]), *[int(a) for a in attrs])


def _file(f, base_time):
    if isinstance(f, list):
        f = {"name": f[0], "size": f[1], "attrs": f[2:4], "components": f[4] if len(f) > 4 else []}
    attrs = list(f.get("attrs", [0, 0]))
    if len(attrs) != 2:
        raise CatalogError("a file has two attributes: %r" % (f,))
    return (int(f.get("time", base_time)), str(f["name"]), int(f["size"]),
            int(attrs[0]), int(attrs[1]), [int(i) for i in f.get("components", [])])
