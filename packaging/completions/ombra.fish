# fish completion for ombra(1)

function __ombra_volumes
    command ombra list --json 2>/dev/null | string match --all --regex --groups-only '"volumeName":"((?:\\\\.|[^"\\\\])*)"' | string replace --all --regex '\\\\(["\\\\/])' '$1'
end

function __ombra_profiles
    cat ~/.aws/credentials ~/.aws/config 2>/dev/null | string match --regex --groups-only '^\[(?:profile )?([^\] ]*)\]'
end

set -l urls sftp:// ftpes:// ftps:// ftp:// davs:// dav:// https:// http:// s3:// file:///
set -l settings TracingEnabled DebugLogging UseVerboseLogging MountAtRemoteRoot
set -l get '__fish_seen_subcommand_from defaults; and __fish_seen_subcommand_from get'
set -l set '__fish_seen_subcommand_from defaults; and __fish_seen_subcommand_from set'

complete -c ombra -f
complete -c ombra -s h -l help -d 'Print the usage'
complete -c ombra -n __fish_use_subcommand -l version -d 'Print the version'
complete -c ombra -n __fish_use_subcommand -a mount -d 'Mount a folder of a server'
complete -c ombra -n __fish_use_subcommand -a sample -d 'Mount a sample folder'
complete -c ombra -n __fish_use_subcommand -a list -d 'Show the mounted volumes'
complete -c ombra -n __fish_use_subcommand -a status -d 'Show what is being transferred'
complete -c ombra -n __fish_use_subcommand -a unmount -d 'Unmount volumes'
complete -c ombra -n __fish_use_subcommand -a refresh -d 'Look at folders again that changed on the server'
complete -c ombra -n __fish_use_subcommand -a logs -d 'Print the newest log of a volume'
complete -c ombra -n __fish_use_subcommand -a defaults -d 'Show and change settings of the helpers'
complete -c ombra -n __fish_use_subcommand -a forget -d 'Remove passwords from the keyring'
complete -c ombra -n __fish_use_subcommand -a doctor -d 'Look whether this machine can mount'

complete -c ombra -n '__fish_seen_subcommand_from mount' -a "$urls"
complete -c ombra -n '__fish_seen_subcommand_from mount sample' -l name -x -d 'The name of the volume'
complete -c ombra -n '__fish_seen_subcommand_from mount sample' -l icon -r -F -d 'An icon for the volume'
complete -c ombra -n '__fish_seen_subcommand_from mount sample' -l passthrough -x -d 'Mount only once for this identifier'
complete -c ombra -n '__fish_seen_subcommand_from mount sample' -l foreground -d 'Stay until the volume is unmounted'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l identity -r -F -d 'The private key to log in with'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l password-file -r -F -d 'A file with the password'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l ask-password -d 'Ask for the password even when there are keys'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l save -d 'Keep the password in the keyring'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l accept-new -d 'Trust a server that is not known yet'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l encoding -x -a 'UTF-8 ISO-8859-1 ISO-8859-15 WINDOWS-1252 SHIFT_JIS EUC-JP GB18030 KOI8-R' -d 'The encoding of file names'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l endpoint -x -d 'The S3 server'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l region -x -d 'The region of the bucket'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l profile -x -a '(__ombra_profiles)' -d 'The profile of ~/.aws'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l path-style -d 'Send the bucket in the path'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l anonymous -d 'Read a public bucket without a key'
complete -c ombra -n '__fish_seen_subcommand_from mount' -l streaming -d 'Write files as streams'
complete -c ombra -n '__fish_seen_subcommand_from mount sample list status unmount forget doctor' -l json -d 'Print one JSON object'

complete -c ombra -n '__fish_seen_subcommand_from status unmount logs' -a '(__ombra_volumes)'
complete -c ombra -n '__fish_seen_subcommand_from status' -s w -l watch -d 'Go on showing it'
complete -c ombra -n '__fish_seen_subcommand_from unmount' -l all -d 'All volumes'
complete -c ombra -n '__fish_seen_subcommand_from unmount' -l force -d 'Do not wait'
complete -c ombra -n '__fish_seen_subcommand_from doctor' -l endpoint -x -d 'Compare the clock with that S3 server'
complete -c ombra -n '__fish_seen_subcommand_from refresh' -F
complete -c ombra -n '__fish_seen_subcommand_from logs' -l transcript -d 'The conversation with the server'
complete -c ombra -n '__fish_seen_subcommand_from logs' -s f -l follow -d 'Go on with what is added'
complete -c ombra -n '__fish_seen_subcommand_from defaults; and not __fish_seen_subcommand_from get set' -a 'get set'
complete -c ombra -n "$get" -a "$settings"
complete -c ombra -n "$get" -l json -d 'Print one JSON object'
complete -c ombra -n "$set" -a "$settings true false"
complete -c ombra -n '__fish_seen_subcommand_from forget' -a "$urls"
complete -c ombra -n '__fish_seen_subcommand_from forget' -l all -d 'The passwords of all servers'
