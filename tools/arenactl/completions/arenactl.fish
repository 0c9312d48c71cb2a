# Completion of arenactl's command line for fish.
set -l commands info chunks locks check metrics top repair clean explain
set -l none "not __fish_seen_subcommand_from $commands"
complete -c arenactl -n $none -f
complete -c arenactl -n $none -a info -d 'How full the arena and its tables are, and who uses it'
complete -c arenactl -n $none -a chunks -d 'What the heap is divided into'
complete -c arenactl -n $none -a locks -d 'Every open and range lock, and its holder'
complete -c arenactl -n $none -a check -d 'Everything that is wrong with the arena'
complete -c arenactl -n $none -a metrics -d 'The figures for Prometheus'
complete -c arenactl -n $none -a top -d 'The most important figures, once a second'
complete -c arenactl -n $none -a repair -d 'Free the mutexes of dead processes, repair what they guard'
complete -c arenactl -n $none -a clean -d 'Remove the records of processes that have ended'
complete -c arenactl -n $none -a explain -d 'What a result code or errno means and what to do'
complete -c arenactl -n '__fish_seen_subcommand_from explain' -f \
    -a "(arenactl explain 2>/dev/null | string match -r '^[A-Z]\w+')"
complete -c arenactl -s j -l json -d 'One JSON object instead of text'
complete -c arenactl -s w -x -d 'Milliseconds to wait for a quiet moment or a mutex'
complete -c arenactl -l file -x -d 'Only the file of this name, end of a name, or key'
complete -c arenactl -l pid -x -a '(__fish_complete_pids)' -d 'Only what this process holds'
complete -c arenactl -l blocking -d 'Also who stands in whose way'
complete -c arenactl -l dry-run -d 'Change nothing, say what would be done'
complete -c arenactl -s n -x -d 'End after so many looks'
complete -c arenactl -s h -l help -d 'A summary of the usage'
complete -c arenactl -s V -l version -d 'The version'
