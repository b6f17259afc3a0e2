# bash completion for camera-agent and camera-agent-check
_camera_agent() {
    local cur prev words cword split
    _init_completion -s -n : || return

    local option=$prev
    case $option in
        --config | -c)
            _filedir -d
            return
            ;;
        --status-file | -f)
            _filedir
            return
            ;;
        --http-port | -p)
            COMPREPLY=($(compgen -W 8282 -- "$cur"))
            return
            ;;
        --stream | -s)
            COMPREPLY=($(compgen -W rtsp:// -- "$cur"))
            compopt -o nospace
            __ltrim_colon_completions "$cur"
            return
            ;;
        --vendor | -v | --model | -m)
            return
            ;;
    esac
    # "--no-http=x" takes nothing.
    if [[ ${split:-} == true || $cur != -* ]]; then return; fi

    local options="--config= --stream= --debug --status-file= --group-streams --model= --no-http
        --http-port= --legacy-add --require-auth --vendor= --version --help"
    if [[ ${1##*/} == camera-agent-check ]]; then options+=" --connect"; fi
    COMPREPLY=($(compgen -W "$options" -- "$cur"))
    if [[ ${COMPREPLY-} == *= ]]; then compopt -o nospace; fi
} && complete -F _camera_agent camera-agent camera-agent-check
