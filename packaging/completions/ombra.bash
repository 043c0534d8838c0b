# bash completion for ombra(1)

# The names of the mounted volumes, one on each line.
_ombra_volumes() {
  command "${1:-ombra}" list --json 2>/dev/null |
    grep -o '"volumeName":"\(\\.\|[^"\\]\)*"' |
    sed -e 's/^"volumeName":"//' -e 's/"$//' -e 's/\\\(["\\/]\)/\1/g'
}

# Completes from lines of words that may hold blanks.
_ombra_lines() {
  local line
  while IFS= read -r line; do
    [[ $line == "$cur"* || $(printf '%q' "$line") == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$line")")
  done
}

_ombra_words() {
  local IFS=$' \t\n'
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur")
}

_ombra_files() {
  compopt -o filenames 2>/dev/null
  # Each line as it is: names may hold what the shell takes for a pattern.
  mapfile -t COMPREPLY < <(compgen "$1" -- "$cur")
}

_ombra_urls() {
  compopt -o nospace 2>/dev/null
  # A colon ends a word: what comes after it is the server, which nobody knows.
  [[ ${COMP_WORDS[COMP_CWORD]} == :* || ${COMP_WORDS[COMP_CWORD - 1]} == : ]] && return
  _ombra_words "sftp:// ftpes:// ftps:// ftp:// davs:// dav:// https:// http:// s3:// file:///"
}

# The value of the option $1; false when it takes none.
_ombra_value() {
  case $1 in
    --identity | --password-file | --icon) _ombra_files -f ;;
    --encoding) _ombra_words "UTF-8 ISO-8859-1 ISO-8859-15 WINDOWS-1252 SHIFT_JIS EUC-JP GB18030 KOI8-R" ;;
    --profile)
      _ombra_words "$(sed -n -e 's/^\[\(profile \)\{0,1\}\([^] ]*\)\].*/\2/p' ~/.aws/credentials ~/.aws/config 2>/dev/null)"
      ;;
    --name | --passthrough | --endpoint | --region) ;;
    *) return 1 ;;
  esac
}

_ombra_options() {
  local volume="--name --icon --passthrough --foreground"
  case $1 in
    "") echo "--help --version" ;;
    mount)
      echo "$volume --identity --password-file --ask-password --save --accept-new --encoding --endpoint --region" \
        "--profile --path-style --anonymous --streaming --json --help"
      ;;
    sample) echo "$volume --json --help" ;;
    list) echo "--json --help" ;;
    status) echo "--watch --json --help" ;;
    unmount) echo "--all --force --json --help" ;;
    refresh) echo "--help" ;;
    logs) echo "--transcript --follow --help" ;;
    forget) echo "--all --json --help" ;;
    doctor) echo "--endpoint --json --help" ;;
    "defaults get") echo "--json --help" ;;
    "defaults" | "defaults set") echo "--help" ;;
  esac
}

_ombra_arguments() {
  case $1 in
    "") _ombra_words "mount sample list status unmount refresh logs defaults forget doctor" ;;
    mount | forget) _ombra_urls ;;
    status | unmount | logs) _ombra_lines < <(_ombra_volumes "${COMP_WORDS[0]}") ;;
    refresh) _ombra_files -d ;;
    defaults) _ombra_words "get set" ;;
    "defaults get") _ombra_words "TracingEnabled DebugLogging UseVerboseLogging MountAtRemoteRoot" ;;
    "defaults set")
      case $2 in
        TracingEnabled | DebugLogging | UseVerboseLogging | MountAtRemoteRoot) _ombra_words "true false" ;;
        *) _ombra_words "TracingEnabled DebugLogging UseVerboseLogging MountAtRemoteRoot" ;;
      esac
      ;;
  esac
}

_ombra() {
  local cur=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; ++i)); do
    [[ ${COMP_WORDS[i]} == -* ]] && continue
    if [[ -z $command ]]; then
      command=${COMP_WORDS[i]}
    elif [[ $command == defaults ]]; then
      command+=" ${COMP_WORDS[i]}"
    fi
    [[ $command != defaults ]] && break
  done
  # "--icon=/x" comes as three words.
  if [[ $cur == "=" ]]; then
    cur=
  elif [[ $previous == "=" ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  _ombra_value "$previous" && return
  if [[ $cur == -* ]]; then
    _ombra_words "$(_ombra_options "$command")"
  else
    _ombra_arguments "$command" "$previous"
  fi
}

complete -F _ombra ombra
