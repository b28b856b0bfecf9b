# shellcheck shell=bash
# Completion of featurehost's command line for bash. Loaded by bash-completion from
# /usr/share/bash-completion/completions/featurehost, or with ". featurehost.bash".

# The command among the words before the cursor and how many arguments it has; sets command and
# arguments.
_featurehost_parse() {
  local index word
  command='' arguments=0
  for ((index = 1; index < COMP_CWORD; ++index)); do
    word=${COMP_WORDS[index]}
    case $word in
      --module | --feature | --log-level | --log-file)
        # With or without "=", which is a word of its own.
        [[ ${COMP_WORDS[index + 1]-} != '=' ]] || index=$((index + 1))
        index=$((index + 1))
        ;;
      -*) ;;
      *)
        if [[ -z $command ]]; then
          command=$word
        else
          arguments=$((arguments + 1))
        fi
        ;;
    esac
  done
}

_featurehost_words() {
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

# Files that match a pattern, and the folders on the way to them.
_featurehost_files() {
  # Quotes and blanks; only bash itself knows this option, and only while it completes.
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(
    compgen -d -- "$2"
    compgen -f -X "!$1" -- "$2"
  )
}

# The feature ids of the configuration on the command line: its tables.
_featurehost_features() {
  local word file=''
  for word in "${COMP_WORDS[@]}"; do
    [[ $word != *.toml ]] || file=$word
  done
  [[ -z $file || ! -r $file ]] ||
    _featurehost_words "$(sed -n 's/^[[:space:]]*\[\([A-Za-z0-9_-]*\)\].*/\1/p' "$file")" "$1"
}

_featurehost() {
  local command arguments options
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  if [[ $current == '=' ]]; then
    current=''
  elif [[ $previous == '=' ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  case $previous in
    --module | --log-file)
      _featurehost_files '*' "$current"
      return
      ;;
    --log-level)
      _featurehost_words 'error warning info interface' "$current"
      return
      ;;
    --feature)
      _featurehost_features "$current"
      return
      ;;
  esac

  _featurehost_parse
  if [[ $current == -* ]]; then
    options='--module --feature --log-level --log-file --json --quiet --help --version -h'
    case $command in
      install) options+=' --no-lint' ;;
      lint) options+=' --deep --strict' ;;
      cleanup) options+=' --dry-run' ;;
    esac
    _featurehost_words "$options" "$current"
  elif [[ -z $command ]]; then
    _featurehost_words 'install prepare lint cleanup type' "$current"
  elif [[ $command == @(install|prepare|lint) && $arguments -eq 0 ]]; then
    _featurehost_files '*.toml' "$current"
  fi
}

complete -F _featurehost featurehost
