"""Completion of the shell for the program, from its own help."""

HEAD = '''# Completion of vorn(1) for bash. Made from what vorn --help says.

# Names of the buses on this machine.
_vorn_buses() {
    local file
    for file in /dev/shm/vorn.*.bus; do
        [ -e "$file" ] || continue
        file=${file#/dev/shm/vorn.}
        printf '%s\\n' "${file%.bus}"
    done
}

_vorn() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local subcommand=${COMP_WORDS[1]-} options='' argument=none
    COMPREPLY=()
    if [ "$subcommand" = help ] && [ "$COMP_CWORD" -gt 1 ]; then
        [ "$COMP_CWORD" -gt 2 ] || mapfile -t COMPREPLY < <(compgen -W '@SUBCOMMANDS@' -- "$word")
        return
    fi
    if [ "$COMP_CWORD" -le 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W 'help @SUBCOMMANDS@ @OPTIONS@' -- "$word")
        return
    fi
    case $subcommand in
'''

TAIL = '''    *) return ;;
    esac
    case $argument in
    file)
        compopt -o filenames 2> /dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        ;;
    folder)
        compopt -o filenames 2> /dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
        ;;
    bus) mapfile -t COMPREPLY < <(compgen -W "$(_vorn_buses)" -- "$word") ;;
    value) ;;
    *)
        if [[ $word == -* ]] || [ "$argument" = none ]; then
            mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
        else
            compopt -o filenames 2> /dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
        fi
        ;;
    esac
}

complete -F _vorn vorn
'''


def _kind(names, takes):
    if takes == "FILE":
        return "file"
    if takes == "DIR":
        return "folder"
    return "bus" if "--bus" in names else "value"


def completion(top, subcommands):
    head = HEAD.replace("@SUBCOMMANDS@", " ".join(subcommands)).replace(
        "@OPTIONS@", " ".join(name for names, _ in top.option_names() for name in names))
    lines = []
    for subcommand, text in subcommands.items():
        kinds, every = {}, []
        for names, takes in text.option_names():
            every += names
            if takes:
                kinds.setdefault(_kind(names, takes), []).extend(names)
        lines.append(f"    {subcommand})")
        lines.append(f"        options='{' '.join(every)}'")
        if any(name in ("FILE", "CAPTURE") or name.startswith(("FILE", "CAPTURE"))
               for name, _ in text.arguments):
            lines.append("        argument=files")
        if kinds:
            lines.append("        case $before in")
            lines += [f"        {' | '.join(names)}) argument={kind} ;;" for kind, names in kinds.items()]
            lines.append("        esac")
        lines.append("        ;;")
    return head + "\n".join(lines) + "\n" + TAIL
