# Completion of quarnctl for fish. The keys come from quarnctl itself, which needs no daemon for that.

set -g __quarnctl_commands get list describe diff status export set reset apply confirm rollback monitor watch

function __quarnctl_keys
    quarnctl complete-keys 2>/dev/null | string replace -r '\t(.*)\t.*' '\t$1'
end

function __quarnctl_keys_to_set
    quarnctl complete-keys 2>/dev/null | string match -r '.*\trw$' | string replace -r '\t.*' ''
end

function __quarnctl_assignments
    quarnctl complete-keys 2>/dev/null | string match -r '.*\trw$' | while read -d \t -l key type access
        if test "$type" = boolean
            printf '%s=true\n%s=false\n' $key $key
        else
            printf '%s=\n' $key
        end
    end
end

complete -c quarnctl -f
complete -c quarnctl -n "not __fish_seen_subcommand_from $__quarnctl_commands" -a "$__quarnctl_commands"
complete -c quarnctl -s H -l host -x -d "a camera reached over SSH"
complete -c quarnctl -l json -d "print JSON"
complete -c quarnctl -l timeout -x -d "seconds to wait for the daemon"
complete -c quarnctl -l help -d "print help"
complete -c quarnctl -l version -d "print the version"
complete -c quarnctl -n "__fish_seen_subcommand_from get list describe watch" -a "(__quarnctl_keys)"
complete -c quarnctl -n "__fish_seen_subcommand_from reset" -a "(__quarnctl_keys_to_set)"
complete -c quarnctl -n "__fish_seen_subcommand_from set" -a "(__quarnctl_assignments)"
complete -c quarnctl -n "__fish_seen_subcommand_from apply" -F
complete -c quarnctl -n "__fish_seen_subcommand_from set reset apply" -l confirm -x -d "seconds within which to confirm"
complete -c quarnctl -n "__fish_seen_subcommand_from set reset apply" -l no-wait -d "do not wait for the change"
complete -c quarnctl -n "__fish_seen_subcommand_from set reset apply" -s n -l dry-run -d "change nothing"
complete -c quarnctl -n "__fish_seen_subcommand_from reset" -l all -d "the factory reset"
complete -c quarnctl -n "__fish_seen_subcommand_from reset" -s y -l yes -d "do not ask"
complete -c quarnctl -n "__fish_seen_subcommand_from apply" -l skip-unknown -d "leave out unknown keys"
complete -c quarnctl -n "__fish_seen_subcommand_from watch" -l interval -x -d "seconds between looks"
