# Completion of arenactl's command line for bash.
_arenactl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command= i
    local commands='info chunks locks check metrics top repair clean explain'
    local options='-j --json -w --file --pid --blocking --dry-run -n -h --help -V --version'
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        -w | -n | --file | --pid) ((i++)) ;;
        -*) ;;
        *)
            command=${COMP_WORDS[i]}
            break
            ;;
        esac
    done
    case $before in -w | -n | --file | --pid) return ;; esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
    elif [[ $command == explain ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(arenactl explain 2>/dev/null | sed -n 's/^\([A-Z]\w*\)  .*/\1/p')" -- "$word")
    else
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -F _arenactl arenactl
