#!/bin/sh
# Fails when any library object but the platform layer refers to the C
# allocator, operator new/delete or exception throwing: all memory must be
# accounted, and the library is built without exceptions.
nm_tool=$1; shift
bad='^(malloc|calloc|realloc|free|strdup|strndup|posix_memalign|aligned_alloc|_Znw.*|_Zna.*|_Zdl.*|_Zda.*|__cxa_throw|__cxa_allocate_exception)$'
checked=0; platform_seen=0; status=0
for obj in "$@"; do
  case "$obj" in
    *DTPlatform.cpp.o)
      # The check must be able to see a reference at all: the platform layer has one.
      "$nm_tool" -u "$obj" | awk '{print $NF}' | grep -Eq '^malloc$' && platform_seen=1
      continue ;;
  esac
  checked=$((checked + 1))
  hits=$("$nm_tool" -u "$obj" | awk '{print $NF}' | sed 's/@.*//' | grep -E "$bad")
  if [ -n "$hits" ]; then
    echo "$(basename "$obj") refers to: $hits"
    status=1
  fi
done
[ "$platform_seen" = 1 ] || { echo "platform object not found or nm sees no reference to malloc"; status=1; }
[ "$checked" -gt 0 ] || { echo "no library objects checked"; status=1; }
[ "$status" = 0 ] && echo "checked $checked objects: no allocation outside the platform layer"
exit $status
