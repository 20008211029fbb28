// The pages as the web port serves them (staged by the build beside the generated constants),
// imported the way a browser would: by file, relative imports and all.
import { join } from "node:path";
import { pathToFileURL } from "node:url";

export const root = process.env.PARLAVOX_WEB_ROOT;
if (!root) throw new Error("PARLAVOX_WEB_ROOT must name the staged pages (build/<preset>/src/web/root)");

export const load = (path) => import(pathToFileURL(join(root, path)).href);
