if(TQ_SANITIZE)
  add_compile_options(-fsanitize=${TQ_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TQ_SANITIZE})
endif()
