<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru_RU">
<context>
    <name>Quillet</name>
    <message>
        <source>Can not open input file %1</source>
        <translation>Не удаётся открыть входной файл %1</translation>
    </message>
    <message>
        <source>Can not open template file %1</source>
        <translation>Не удаётся открыть файл шаблона %1</translation>
    </message>
    <message>
        <source>Can not open variables file %1</source>
        <translation>Не удаётся открыть файл переменных %1</translation>
    </message>
    <message>
        <source>Can not open output file %1 for writing</source>
        <translation>Не удаётся открыть выходной файл %1 для записи</translation>
    </message>
    <message>
        <source>No pages was found in file %1</source>
        <translation>В файле %1 не найдено ни одной страницы</translation>
    </message>
    <message>
        <source>Can not open marker font file %1</source>
        <translation>Не удаётся открыть файл шрифта маркера %1</translation>
    </message>
    <message>
        <source>Input file %1 is not a regular file</source>
        <translation>Входной файл %1 не является обычным файлом</translation>
    </message>
    <message>
        <source>Input file %1 and %2 are the same file</source>
        <translation>Входной файл %1 и %2 — один и тот же файл</translation>
    </message>
    <message>
        <source>Can not write variables file %1</source>
        <translation>Не удаётся записать файл переменных %1</translation>
    </message>
    <message>
        <source>Can not write output file %1</source>
        <translation>Не удаётся записать выходной файл %1</translation>
    </message>
</context>
<context>
    <name>main</name>
    <message>
        <source>Can not read marker variables file %1</source>
        <translation>Не удаётся прочитать файл переменных маркера %1</translation>
    </message>
    <message>
        <source>Can not find marker definition file %1</source>
        <translation>Не найден файл определений маркера %1</translation>
    </message>
    <message>
        <source>Can not read marker definition file %1</source>
        <translation>Не удаётся прочитать файл определений маркера %1</translation>
    </message>
    <message>
        <source>Can not read marker format file %1</source>
        <translation>Не удаётся прочитать файл формата маркера %1</translation>
    </message>
    <message>
        <source>PostScript file Marker Filter</source>
        <translation>Фильтр маркировки PostScript-файлов</translation>
    </message>
    <message>
        <source>Input PostScript file name</source>
        <translation>Имя входного PostScript-файла</translation>
    </message>
    <message>
        <source>Template file name marker</source>
        <translation>Имя файла шаблона маркера</translation>
    </message>
    <message>
        <source>File name with marker variable values</source>
        <translation>Имя файла со значениями переменных маркера</translation>
    </message>
    <message>
        <source>Output PostScript file name</source>
        <translation>Имя выходного PostScript-файла</translation>
    </message>
    <message>
        <source>Enable duplex mode</source>
        <translation>Включить режим двусторонней печати</translation>
    </message>
    <message>
        <source>Input file %1 doesn&apos;t exist</source>
        <translation>Входной файл %1 не существует</translation>
    </message>
    <message>
        <source>Marker template file %1 doesn&apos;t exist</source>
        <translation>Файл шаблона маркера %1 не существует</translation>
    </message>
    <message>
        <source>Variables file %1 doesn&apos;t exist</source>
        <translation>Файл переменных %1 не существует</translation>
    </message>
    <message>
        <source>Variables file %1 is not a regular file</source>
        <translation>Файл переменных %1 не является обычным файлом</translation>
    </message>
    <message>
        <source>Marker definition file %1 is not a regular file</source>
        <translation>Файл определений маркера %1 не является обычным файлом</translation>
    </message>
    <message>
        <source>Marker template file %1 is not a regular file</source>
        <translation>Файл шаблона маркера %1 не является обычным файлом</translation>
    </message>
    <message>
        <source>Can not read glyph list %1: the marker would not print</source>
        <translation>Не удаётся прочитать список глифов %1: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Glyph list %1 names no glyphs: the marker would not print</source>
        <translation>Список глифов %1 не содержит ни одного глифа: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Can not read charset file %1: the marker would not print</source>
        <translation>Не удаётся прочитать файл наборов символов %1: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Charset file %1 has a bad line: the marker would not print</source>
        <translation>В файле наборов символов %1 есть неверная строка: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Charset file %1 describes no charsets: the marker would not print</source>
        <translation>Файл наборов символов %1 не описывает ни одного набора: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Can not read marker font file %1: the marker would not print</source>
        <translation>Не удаётся прочитать файл шрифта маркера %1: маркер не был бы напечатан</translation>
    </message>
</context>
</TS>
