# Completion of korureg's words in bash: korureg says itself what could stand at the cursor.
_korureg() {
  local cur words cword IFS=$'\n'
  if declare -F _get_comp_words_by_ref >/dev/null; then
    _get_comp_words_by_ref -n =: cur words cword
  else
    words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]}
  fi
  COMPREPLY=($(korureg complete-words -- "${words[@]:1:cword}" 2>/dev/null))
  declare -F __ltrim_colon_completions >/dev/null && __ltrim_colon_completions "$cur"
  if [[ ${COMPREPLY[0]} == *= ]]; then compopt -o nospace; fi
}
complete -o default -F _korureg korureg
