#compdef natctl natagentd
# Completion of natctl and natagentd for zsh.

if [[ $service == natagentd ]]; then
  _arguments \
    '--config[configuration]:file:_files -g "*.toml"' \
    '--runtime-dir[directory of the queues]:directory:_directories' \
    '--log-dir[directory of natagent.log]:directory:_directories' \
    '--state-dir[directory of the last good configuration]:directory:_directories' \
    '--check[check the configuration and exit]' \
    '--print-config[print the settings and where they come from]' \
    '(- *)'{-h,--help}'[show help]' '(- *)'{-V,--version}'[show the version]'
  return
fi

local curcontext=$curcontext state line
typeset -A opt_args
local -a commands=(
  'run:commands, one a line, from a file or standard input'
  'cs:one signalling port'
  'cs-list:several signalling ports'
  'rtp:media ports'
  'reverse:local endpoints behind public ones'
  'close:forget the media ports of a request'
  'update:configuration-update notice, as cgi'
  'wait:print until some seconds pass in silence'
  'watch:print until interrupted'
  'stun:ask STUN servers, without the agent'
  'status:what the agent knows and has done'
  'monitor:what happens, until interrupted'
  'explain:why an answer is as it is'
  'help:what a command takes'
)
local -a parties=(sip q113 cm cc cgi)

_arguments -C \
  '--runtime-dir[directory of the queues]:directory:_directories' \
  '--json[one JSON object a line]' \
  '--timeout[how long to wait for an answer]:seconds' \
  '(- *)'{-h,--help}'[show help]' '(- *)'{-V,--version}'[show the version]' \
  '1:command:->command' '*::argument:->argument' && return

if [[ $state == command ]]; then
  _describe command commands
  return
fi

# CURRENT counts from the command here.
local -a addresses=(${${(f)"$(ip -o -4 address show 2>/dev/null | awk '{ sub("/.*", "", $4); print $4 }')"}})
_natctl_rest() {
  (($1)) && _wanted address expl 'local address' compadd -S : -a addresses
  shift
  (($#)) && _wanted word expl word compadd -S '' -- "$@"
}
case $words[1]:$CURRENT in
  run:2) _files ;;
  help:2) _describe command commands ;;
  (cs|cs-list|rtp|reverse|close|watch|explain):2) _wanted party expl party compadd -a parties ;;
  (cs|explain):4) _natctl_rest 1 ;;
  explain:<5->) _natctl_rest 0 udp tcp tls rtp server={sip,cm,cc} ;;
  status:*) _arguments '--format[how to print]:format:(text json openmetrics)' \
    '*:topic:(parties mappings stun calls exclusions names config counters uplink)' ;;
  monitor:*) _arguments '--log[the lines of natagent.log too]' ;;
  cs:<5->) _natctl_rest 0 udp tcp tls nowait id= value= ;;
  cs-list:<4->|reverse:<3->) _natctl_rest 1 nowait id= value= ;;
  rtp:<4->) _natctl_rest 1 nowait id= server={sip,cm,cc} ;;
  close:3) _natctl_rest 0 id= ;;
  update:<3->) _natctl_rest 0 value= ;;
  stun:*) _arguments '--local-port[the UDP port to ask from]:port' '*:server:_hosts' ;;
esac
