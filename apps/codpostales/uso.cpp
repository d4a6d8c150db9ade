#include "cli.h"

namespace cli {

void muestraUso(std::FILE* salida) {
  std::fputs(
      "Uso: codpostales ORDEN [OPCIONES]\n"
      "\n"
      "Órdenes:\n"
      "  tabla FICHERO.DBF [opciones]   muestra las filas de la tabla en CSV (UTF-8, con cabecera)\n"
      "    --info                       describe la tabla en vez de mostrar las filas: versión,\n"
      "                                 controlador de idioma, página de códigos, registros,\n"
      "                                 borrados, última actualización, MDX, avisos y campos\n"
      "    --orden CAMPO[,CAMPO...]     ordena por esos campos (con el orden alfabético de la tabla)\n"
      "    --filtro TEXTO               sólo las filas que cumplen el filtro (CAMPO=valor [AND ...])\n"
      "    --buscar VALOR               empieza en la fila buscada; una vez por cada campo de\n"
      "                                 --orden, en su orden. Sin --exacto busca la más cercana\n"
      "                                 igual o posterior (o la última si no hay ninguna)\n"
      "    --exacto                     búsqueda exacta: sale con 1 si no encuentra la fila\n"
      "    --campos C1,C2,...           columnas a mostrar, en ese orden\n"
      "    --limite N                   muestra como mucho N filas\n"
      "  anadir FICHERO.DBF             añade a la tabla las filas CSV (UTF-8) de la entrada estándar;\n"
      "                                 la cabecera da los campos (cualquiera, en cualquier orden).\n"
      "                                 Si una fila no vale no se escribe nada. El número de filas\n"
      "                                 añadidas se indica en la salida de errores.\n"
      "  --ayuda                        muestra esta ayuda\n"
      "\n"
      "Estado de salida: 0 si todo fue bien, 1 si una búsqueda exacta no encontró la fila,\n"
      "2 ante cualquier error (el mensaje va a la salida de errores).\n",
      salida);
}

}  // namespace cli
