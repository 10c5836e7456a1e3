<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru_RU">
<context>
    <name>PageCode</name>
    <message>
        <source>its key line is neither &quot;site SECRET&quot; nor &quot;job ID SECRET&quot;</source>
        <translation>его строка ключа не имеет вида &quot;site SECRET&quot; или &quot;job ID SECRET&quot;</translation>
    </message>
    <message>
        <source>the secret must be 64 hexadecimal digits and a job id a number below 16777216</source>
        <translation>секрет должен состоять из 64 шестнадцатеричных цифр, а номер задания быть числом меньше 16777216</translation>
    </message>
    <message>
        <source>it holds no key line</source>
        <translation>в нём нет строки ключа</translation>
    </message>
    <message>
        <source>Page-code key file %1 doesn&apos;t exist</source>
        <translation>Файл ключа кодов страниц %1 не существует</translation>
    </message>
    <message>
        <source>Can not read page-code key file %1</source>
        <translation>Не удаётся прочитать файл ключа кодов страниц %1</translation>
    </message>
    <message>
        <source>Page-code key file %1 is not a key: %2</source>
        <translation>Файл ключа кодов страниц %1 не является ключом: %2</translation>
    </message>
    <message>
        <source>Key file %1 already exists; it is not replaced</source>
        <translation>Файл ключа %1 уже существует; он не заменяется</translation>
    </message>
    <message>
        <source>Can not create key file %1: %2</source>
        <translation>Не удаётся создать файл ключа %1: %2</translation>
    </message>
    <message>
        <source>Page codes need the job&apos;s number, but job-id is &quot;%1&quot;</source>
        <translation>Для кодов страниц нужен номер задания, а job-id равен &quot;%1&quot;</translation>
    </message>
    <message>
        <source>Page-code key file %1 holds the key of job %2, not of job %3</source>
        <translation>Файл ключа кодов страниц %1 содержит ключ задания %2, а не задания %3</translation>
    </message>
</context>
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
    <message>
        <source>Can not create a temporary file for input file %1</source>
        <translation>Не удаётся создать временный файл для входного файла %1</translation>
    </message>
    <message>
        <source>Can not write the copy of input file %1 without its earlier marks</source>
        <translation>Не удаётся записать копию входного файла %1 без его прежней маркировки</translation>
    </message>
    <message>
        <source>Input file %1 holds an earlier mark without its end</source>
        <translation>Входной файл %1 содержит прежнюю маркировку без её конца</translation>
    </message>
    <message>
        <source>Marker template %1 holds more than %2 marker strings</source>
        <translation>Шаблон маркера %1 содержит больше %2 строк маркера</translation>
    </message>
    <message>
        <source>Marker template %1 draws nothing on page %2 of %3</source>
        <translation>Шаблон маркера %1 ничего не печатает на странице %2 из %3</translation>
    </message>
    <message>
        <source>The first line of input file %1 is not a comment that ends at its line feed</source>
        <translation>Первая строка входного файла %1 не является комментарием, который заканчивается переводом строки</translation>
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
<context>
    <name>verify</name>
    <message>
        <source>Try &quot;quillet-verify --help&quot;.</source>
        <translation>Попробуйте &quot;quillet-verify --help&quot;.</translation>
    </message>
    <message>
        <source>Can not read marker definition file %1</source>
        <translation>Не удаётся прочитать файл определений маркера %1</translation>
    </message>
    <message>
        <source>No page-code key: %1 does not set %2; give --key FILE</source>
        <translation>Нет ключа кодов страниц: %1 не задаёт %2; укажите --key ФАЙЛ</translation>
    </message>
    <message>
        <source>a code has 24 characters besides &quot;-&quot;</source>
        <translation>код состоит из 24 символов, не считая &quot;-&quot;</translation>
    </message>
    <message>
        <source>it holds a character that codes never use</source>
        <translation>в нём есть символ, которого в кодах не бывает</translation>
    </message>
    <message>
        <source>no code is spelled like this</source>
        <translation>так не пишется ни один код</translation>
    </message>
    <message>
        <source>New page-code key written to %1</source>
        <translation>Новый ключ кодов страниц записан в %1</translation>
    </message>
    <message>
        <source>%1: NOT authentic</source>
        <translation>%1: НЕ подлинный</translation>
    </message>
    <message>
        <source>%1: NOT authentic (%2)</source>
        <translation>%1: НЕ подлинный (%2)</translation>
    </message>
    <message>
        <source>%1: authentic: job %2, page %3, copy %4, marked on %5</source>
        <translation>%1: подлинный: задание %2, страница %3, экземпляр %4, маркирован %5</translation>
    </message>
    <message>
        <source>Checks the page codes that quillet prints, or makes a new key</source>
        <translation>Проверяет коды страниц, которые печатает quillet, или создаёт новый ключ</translation>
    </message>
    <message>
        <source>Page code as printed; any case, &quot;-&quot; optional</source>
        <translation>Код страницы, как он напечатан; регистр любой, &quot;-&quot; необязателен</translation>
    </message>
    <message>
        <source>Key file to check with (default: the one the marker definitions name)</source>
        <translation>Файл ключа для проверки (по умолчанию тот, что назван в определениях маркера)</translation>
    </message>
    <message>
        <source>Write a new random site key to a new file of mode 0600</source>
        <translation>Записать новый случайный ключ площадки в новый файл с правами 0600</translation>
    </message>
    <message>
        <source>Print server log to look up the jobs&apos; audit lines in (default: %1)</source>
        <translation>Журнал сервера печати, в котором искать строки аудита заданий (по умолчанию %1)</translation>
    </message>
    <message>
        <source>--new-key takes one file and nothing else</source>
        <translation>--new-key принимает один файл и ничего больше</translation>
    </message>
    <message>
        <source>Give the codes to check, or --new-key FILE</source>
        <translation>Укажите коды для проверки или --new-key ФАЙЛ</translation>
    </message>
    <message>
        <source>--key takes one file name, once</source>
        <translation>--key принимает одно имя файла, один раз</translation>
    </message>
    <message>
        <source>--log takes one file name, once</source>
        <translation>--log принимает одно имя файла, один раз</translation>
    </message>
</context>
</TS>
