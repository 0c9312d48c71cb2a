#!/usr/bin/env python3
"""Makes the HTML of the documents and the manual pages, and checks every link in it.

usage: make_html.py SOURCE OUT

Needs python3-markdown and mandoc. The pages are plain and narrow, for a phone as well as a desk.
"""
import html.parser
import os
import re
import subprocess
import sys

import markdown

STYLE = """body{max-width:46rem;margin:0 auto;padding:1rem;font:1rem/1.5 system-ui,sans-serif;color:#222;background:#fff}
pre,table{overflow-x:auto;display:block;max-width:100%}pre,code{font:.9em/1.4 ui-monospace,monospace;background:#f4f4f2}
pre{padding:.6rem}code{padding:0 .2em}td,th{padding:.2rem .6rem;text-align:left;vertical-align:top;border-bottom:1px solid #ddd}
nav{border-bottom:1px solid #ddd;padding-bottom:.5rem}img{max-width:100%}a{color:#04c}
@media(prefers-color-scheme:dark){body{color:#ddd;background:#181818}pre,code{background:#262626}a{color:#8bf}}"""
PAGE = ('<!DOCTYPE html><html lang="en"><head><meta charset="utf-8"><title>{title}</title>'
        '<meta name="viewport" content="width=device-width, initial-scale=1"><style>' + STYLE.replace("{", "{{").replace("}", "}}") +
        '</style></head><body><nav><a href="{root}README.html">iosched</a> · <a href="{root}docs/guide.html">guide</a> · '
        '<a href="{root}man/index.html">manual</a></nav>\n{body}\n</body></html>\n')


def write(out, name, title, body):
    path = os.path.join(out, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    root = "../" * name.count("/")
    with open(path, "w", encoding="utf-8") as page:
        page.write(PAGE.format(title=title, root=root, body=body))


def documents(source, out):
    tracked = subprocess.run(["git", "-C", source, "ls-files"], capture_output=True, text=True, check=True).stdout.split()
    texts = [f for f in tracked if f.endswith(".md")]
    for name in texts:
        text = open(os.path.join(source, name), encoding="utf-8").read()
        text = re.sub(r"\]\(([^)#: ]*)\.md(#[^)]*)?\)", r"](\1.html\2)", text)
        title = re.search(r"^# (.*)", text, flags=re.M)[1]
        write(out, name[:-3] + ".html", title, markdown.markdown(text, extensions=["tables", "fenced_code", "toc"]))
    # Whatever else a document points to goes along as it is: sources, headers, pictures.
    for name in texts:
        for link in re.findall(r"\]\(([^)#: ]+)\)", open(os.path.join(source, name), encoding="utf-8").read()):
            target = os.path.normpath(os.path.join(os.path.dirname(name), link))
            if os.path.isfile(os.path.join(source, target)) and not target.endswith(".md"):
                copy(source, out, target)
            elif os.path.isdir(os.path.join(source, target)):
                inside = sorted(f for f in tracked if os.path.dirname(f) == target)
                rows = "".join('<li><a href="{0}">{0}</a></li>'.format(
                    os.path.basename(re.sub(r"\.md$", ".html", f))) for f in inside)
                write(out, target + "/index.html", target, "<h1>%s</h1><ul>%s</ul>" % (target, rows))
                for f in inside:
                    if not f.endswith(".md"):
                        copy(source, out, f)


def copy(source, out, name):
    os.makedirs(os.path.dirname(os.path.join(out, name)) or out, exist_ok=True)
    with open(os.path.join(source, name), "rb") as old, open(os.path.join(out, name), "wb") as new:
        new.write(old.read())


def manual(source, out):
    pages = os.path.join(out, "man", "source")
    subprocess.run([sys.executable, os.path.join(source, "docs/man/make_pages.py"), source, pages], check=True)
    made = sorted(os.path.join(pages, f) for f in os.listdir(pages))
    own = sorted(os.path.join(source, "docs/man", f) for f in os.listdir(os.path.join(source, "docs/man")) if re.search(r"\.\d$", f))
    names = {os.path.basename(p) for p in made + own}
    rows = []
    for page in own + made:
        name = os.path.basename(page)
        body = subprocess.run(["mandoc", "-Thtml", "-Ofragment,man=%N.%S.html", page], capture_output=True, text=True, check=True).stdout

        def known(match):  # only pages that are here are linked; the system's are not
            return match[0] if match[1][:-5] in names else "<b" + match[2] + "</b>"
        body = re.sub(r'<a class="Xr" href="([^"]*)"(>.*?)</a>', known, body)
        write(out, "man/" + name + ".html", name, body)
        rows.append('<li><a href="%s.html">%s</a></li>' % (name, name))
    for page in made:
        os.unlink(page)
    os.rmdir(pages)
    write(out, "man/index.html", "Manual", "<h1>Manual pages</h1><ul>%s</ul>" % "".join(rows))


class Links(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.links, self.ids = [], set()

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.links += [values[k] for k in ("href", "src") if values.get(k)]
        self.ids |= {values["id"]} if values.get("id") else set()


def check(out):
    seen = {}
    for directory, _, files in os.walk(out):
        for name in files:
            if name.endswith(".html"):
                seen[os.path.join(directory, name)] = parser = Links()
                parser.feed(open(os.path.join(directory, name), encoding="utf-8").read())
    broken = []
    for page, parser in seen.items():
        for link in parser.links:
            if re.match(r"[a-z]+:", link):
                continue
            path, _, anchor = link.partition("#")
            target = os.path.normpath(os.path.join(os.path.dirname(page), path)) if path else page
            if os.path.isdir(target):
                target = os.path.join(target, "index.html")
            if not os.path.exists(target) or (anchor and target in seen and anchor not in seen[target].ids):
                broken.append("%s: %s leads nowhere" % (os.path.relpath(page, out), link))
    if broken:
        sys.exit("\n".join(broken))
    print("%d pages, %d links" % (len(seen), sum(len(p.links) for p in seen.values())))


documents(*sys.argv[1:3])
manual(*sys.argv[1:3])
check(sys.argv[2])
