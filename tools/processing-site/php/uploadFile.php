<?php
// Stores the part "file" of a multipart POST in storage/ and answers the stored name, nothing
// else (but see DX_LINE_BREAK below). A name that is taken gets "-1", "-2", ... before its
// extension, as servers that keep every upload do. When PHP dropped the body (larger than
// post_max_size) the script sees no file at all and, like many real sites, answers 200 with an
// empty body.
$storage = getenv('DX_SITE_ROOT') . '/storage';
$file = $_FILES['file'] ?? null;
if ($file === null) {
    exit;
}
if ($file['error'] !== UPLOAD_ERR_OK) {
    http_response_code(400);
    echo 'upload error ', $file['error'];
    exit;
}
$name = basename($file['name']);
$dot = strrpos($name, '.');
$stem = $dot === false ? $name : substr($name, 0, $dot);
$extension = $dot === false ? '' : substr($name, $dot);
for ($n = 1; file_exists("$storage/$name"); ++$n) {
    $name = "$stem-$n$extension";
}
if (!move_uploaded_file($file['tmp_name'], "$storage/$name")) {
    http_response_code(500);
    echo 'could not store ', $name;
    exit;
}
// DX_LINE_BREAK=1: the answer ends in a line break, as a script that prints a line does.
echo $name, getenv('DX_LINE_BREAK') === '1' ? "\n" : '';
