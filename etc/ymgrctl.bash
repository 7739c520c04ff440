# Completion of ymgrctl for bash. Needs nothing but bash.

# Reads the first words of a command line as bash would, without expanding anything: words[], and quote, which is open
# at the end.
__ymgrctl_read() {
  local line=$1 char i in_word=
  words=() quote=
  for (( i = 0; i < ${#line}; i++ )); do
    char=${line:i:1}
    if [[ -z $quote && $char == [[:blank:]] ]]; then
      in_word=
      continue
    fi
    if [[ -z $in_word ]]; then
      words+=('') in_word=yes
    fi
    if [[ $char == "$quote" ]]; then
      quote=
      continue
    fi
    if [[ -z $quote && $char == [\'\"] ]]; then
      quote=$char
      continue
    fi
    if [[ $char == \\ && $quote != \' ]] && [[ -z $quote || ${line:i+1:1} == [\"\\\$\`] ]]; then
      (( ++i ))
      char=${line:i:1}
    fi
    words[-1]+=$char
  done
  [[ -n $in_word ]] || words+=('')
}

_ymgrctl() {
  local words quote candidate i
  COMPREPLY=()
  __ymgrctl_read "${COMP_LINE:0:COMP_POINT}"
  local line=("${words[@]}") word=${words[-1]} open=$quote
  # What readline is going to replace begins behind an open quote, or behind one of COMP_WORDBREAKS (":", "=" and others).
  # The candidates are whole words, so what stands before that is taken off.
  __ymgrctl_read "$open$2"
  local replaced=${words[-1]}
  local kept=$(( ${#word} - ${#replaced} ))
  [[ $word == *"$replaced" ]] || return 0

  while IFS= read -r candidate; do
    if [[ $candidate != *' ' ]]; then
      compopt -o nospace # the word goes on
    fi
    candidate=${candidate% }
    [[ $candidate == "$word"* ]] || continue
    candidate=${candidate:kept}
    if [[ -z $open ]]; then
      printf -v candidate %q "$candidate"
      candidate=${candidate//\\[/[}
      candidate=${candidate//\\]/]}
    fi
    COMPREPLY+=("$candidate")
  done < <("$1" complete "$(( ${#line[@]} - 2 ))" "${line[@]:1}" 2>/dev/null)
}
complete -F _ymgrctl ymgrctl
