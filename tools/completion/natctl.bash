# Completion of natctl and natagentd for bash. Both are installed under their program's name.

_natctl() {
  local cur prev words cword
  _init_completion -n := || return

  # The words before this one that belong to no option.
  local given=() i
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --runtime-dir | --timeout | --local-port | --format) ((i++)) ;;
      -*) ;;
      *) given+=("${words[i]}") ;;
    esac
  done

  local parties="sip q113 cm cc cgi" choices=
  local addresses="$(ip -o -4 address show 2>/dev/null | awk '{ sub("/.*", ":", $4); print $4 }')"
  case $prev in
    --runtime-dir)
      _filedir -d
      return
      ;;
    --timeout | --local-port) return ;;
    --format)
      COMPREPLY=($(compgen -W "text json openmetrics" -- "$cur"))
      return
      ;;
  esac
  if [[ $cur == -* ]]; then
    choices="--runtime-dir --json --timeout --help --version -h -V"
    case ${given[0]-} in
      stun) choices+=" --local-port" ;;
      status) choices+=" --format" ;;
      monitor) choices+=" --log" ;;
    esac
  else
    case ${given[0]-}:${#given[@]} in
      :0) choices="run cs cs-list rtp reverse close update wait watch stun status monitor explain help" ;;
      help:1) choices="run connect disconnect cs cs-list rtp reverse close update wait watch stun status monitor explain" ;;
      run:1) _filedir ;;
      cs:1 | cs-list:1 | rtp:1 | reverse:1 | close:1 | watch:1 | explain:1) choices=$parties ;;
      cs:3 | explain:3) choices=$addresses ;;
      explain:[4-9]) choices="udp tcp tls rtp server=sip server=cm server=cc" ;;
      status:1) choices="parties mappings stun calls exclusions names config counters uplink" ;;
      cs:[4-9]) choices="udp tcp tls id= value= nowait" ;;
      cs-list:[3-9]* | reverse:[2-9]*) choices="$addresses id= value= nowait" ;;
      rtp:[3-9]*) choices="$addresses server=sip server=cm server=cc id= nowait" ;;
      close:2) choices="id=" ;;
      update:[2-9]*) choices="value=" ;;
    esac
  fi
  [[ -n $choices ]] || return
  COMPREPLY=($(compgen -W "$choices" -- "$cur"))
  [[ ${COMPREPLY[0]-} == *[:=] ]] && compopt -o nospace 2>/dev/null
  __ltrim_colon_completions "$cur"
}

_natagentd() {
  local cur prev words cword
  _init_completion || return
  case $prev in
    --config) _filedir toml ;;
    --runtime-dir | --log-dir | --state-dir) _filedir -d ;;
    *) COMPREPLY=($(compgen -W "--config --runtime-dir --log-dir --state-dir --check --print-config --help --version" -- "$cur")) ;;
  esac
}

complete -F _natctl natctl
complete -F _natagentd natagentd
